#include "id_names.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <vector>

namespace aec::engine {

namespace {

// getpwuid_r/getgrgid_r want a buffer; one entry with many group members
// can outgrow the first guess, so it grows until the entry fits.
template <typename Entry, typename Lookup, typename NameOf>
std::string LookUp(std::uint32_t id, Lookup lookup, NameOf name_of) {
  std::vector<char> buffer(4096);
  for (;;) {
    Entry entry;
    Entry* found = nullptr;
    const int rc = lookup(id, &entry, buffer.data(), buffer.size(), &found);
    if (rc == 0 && found != nullptr) return name_of(*found);
    if (rc != ERANGE || buffer.size() >= (1u << 20)) break;
    buffer.resize(buffer.size() * 2);
  }
  return std::to_string(id);
}

std::string UserName(std::uint32_t uid) {
  return LookUp<struct passwd>(uid, getpwuid_r, [](const struct passwd& p) {
    return std::string(p.pw_name);
  });
}

std::string GroupName(std::uint32_t gid) {
  return LookUp<struct group>(gid, getgrgid_r, [](const struct group& g) {
    return std::string(g.gr_name);
  });
}

}  // namespace

const std::string& IdNames::Kept(Names* kept, std::uint32_t id,
                                 std::string (*look_up)(std::uint32_t)) {
  auto found = kept->find(id);
  if (found != kept->end()) return found->second;
  if (kept->size() >= kMaxKept) kept->clear();
  return kept->emplace(id, look_up(id)).first->second;
}

const std::string& IdNames::User(std::uint32_t uid) {
  return Kept(&users_, uid, UserName);
}

const std::string& IdNames::Group(std::uint32_t gid) {
  return Kept(&groups_, gid, GroupName);
}

}  // namespace aec::engine
