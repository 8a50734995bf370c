#include "process_info.h"

#include <fcntl.h>
#include <unistd.h>

#include <string_view>

namespace aec::engine {

namespace {

bool ParseId(std::string_view word, std::uint32_t *id) {
  if (word.empty() || word.size() > 10)
    return false;
  std::uint64_t value = 0;
  for (char c : word) {
    if (c < '0' || c > '9')
      return false;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
  }
  if (value > 0xFFFFFFFFull)
    return false;
  *id = static_cast<std::uint32_t>(value);
  return true;
}

// The next word of `text` from *at (blanks are spaces and tabs); empty at
// the end.
std::string_view NextWord(std::string_view text, std::size_t *at) {
  const std::size_t begin = text.find_first_not_of(" \t", *at);
  if (begin == std::string_view::npos) {
    *at = text.size();
    return std::string_view();
  }
  std::size_t end = text.find_first_of(" \t", begin);
  if (end == std::string_view::npos)
    end = text.size();
  *at = end;
  return text.substr(begin, end - begin);
}

} // namespace

// Read for nearly every start and library load: plain scanning, no
// streams.
bool ParseProcessStatus(const std::string &text, ProcessIdentity *identity) {
  bool have_uid = false, have_gid = false;
  ProcessIdentity out;
  std::vector<std::uint32_t> groups;
  const std::string_view all(text);
  std::size_t begin = 0;
  while (begin < all.size()) {
    std::size_t end = all.find('\n', begin);
    if (end == std::string_view::npos)
      end = all.size();
    const std::string_view line = all.substr(begin, end - begin);
    begin = end + 1;
    const auto colon = line.find(':');
    if (colon == std::string_view::npos)
      continue;
    const std::string_view key = line.substr(0, colon);
    if (key != "Uid" && key != "Gid" && key != "Groups")
      continue;
    const std::string_view rest = line.substr(colon + 1);
    std::size_t at = 0;
    if (key == "Groups") {
      for (std::string_view word = NextWord(rest, &at); !word.empty();
           word = NextWord(rest, &at)) {
        std::uint32_t id;
        if (!ParseId(word, &id))
          return false;
        groups.push_back(id);
      }
      continue;
    }
    // The first of the four ids (real, effective, saved, file system).
    std::uint32_t id;
    if (!ParseId(NextWord(rest, &at), &id))
      return false;
    if (key == "Uid") {
      out.uid = id;
      have_uid = true;
    } else {
      out.gids.insert(out.gids.begin(), id);
      have_gid = true;
    }
  }
  if (!have_uid || !have_gid)
    return false;
  for (std::uint32_t g : groups) {
    if (g != out.gids.front())
      out.gids.push_back(g);
  }
  *identity = std::move(out);
  return true;
}

bool ReadProcessIdentity(pid_t pid, ProcessIdentity *identity,
                         const std::string &proc_root) {
  const std::string path = proc_root + "/" + std::to_string(pid) + "/status";
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return false;
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got <= 0)
      break;
    text.append(buffer, static_cast<size_t>(got));
  }
  close(fd);
  return ParseProcessStatus(text, identity);
}

std::string ProcessProgram(pid_t pid) {
  const std::string link = "/proc/" + std::to_string(pid) + "/exe";
  char buffer[4096];
  const ssize_t got = readlink(link.c_str(), buffer, sizeof buffer);
  if (got <= 0 || static_cast<size_t>(got) >= sizeof buffer)
    return std::string();
  return std::string(buffer, static_cast<size_t>(got));
}

} // namespace aec::engine
