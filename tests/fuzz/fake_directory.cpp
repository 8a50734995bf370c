// An in-process directory for the fuzzers: these definitions of KXLdap's
// members live in the fuzzer executable and so take the place of
// libkxhost's (the executable's symbols come first in the lookup), so the
// whitelist policy resolves SIDs without a network and always alike.
//
// The directory is corp.example. A SID's relative identifier (its last
// sub-authority) picks the entry, modulo 8:
//   0 alice (user)   1 bob (user)   2 carol (user, no local account)
//   3 dave (user)    4 devs (group) 5 ops (group)
//   6 qa (group, no local group)    7 a device (neither)
// The SID text itself is checked by libkxhost's real KXLdap::SidToBinary,
// which stays in use, so malformed SIDs fail exactly as they would.
#include <stdexcept>
#include <string>

#include "host/kxldap.h"

namespace {

struct Entry {
  const char* name;
  bool user;
  bool group;
};

const Entry kEntries[8] = {
    {"alice", true, false}, {"bob", true, false},      {"carol", true, false},
    {"dave", true, false},  {"devs", false, true},     {"ops", false, true},
    {"qa", false, true},    {"printer", false, false},
};

}  // namespace

KXLdap::KXLdap(const std::string& user, const std::string& password,
               int storage_type, const std::string& port)
    : user_(user),
      password_(password),
      storage_type_(storage_type),
      port_(port) {}

KXLdap::~KXLdap() = default;

void KXLdap::Connect(const std::string& server, bool use_tls) {
  if (server.empty()) {
    throw std::runtime_error("no directory server is configured");
  }
  if (password_.empty()) {
    throw std::runtime_error("refusing a bind without a password");
  }
  base_ = "dc=corp,dc=example";
  // Marks the connection as made; never dereferenced by these definitions.
  ld_ = this;
}

std::string KXLdap::GetDomainNameStr() {
  if (ld_ == nullptr) throw std::runtime_error("directory not connected");
  return "corp.example";
}

std::string KXLdap::GetSAMAccountNameBySid(const std::string& sid) {
  return Lookup(sid, false);
}

std::string KXLdap::GetGroupNameBySid(const std::string& sid) {
  return Lookup(sid, true);
}

std::string KXLdap::Lookup(const std::string& sid, bool group) {
  if (ld_ == nullptr) throw std::runtime_error("directory not connected");
  const std::string binary = SidToBinary(sid);
  // The binary form ends with the last sub-authority, little-endian; a SID
  // without sub-authorities is an entry nobody has.
  if (binary.size() < 12) return "";
  const std::size_t last = binary.size() - 4;
  unsigned long rid = 0;
  for (int i = 3; i >= 0; --i) {
    rid = (rid << 8) | static_cast<unsigned char>(binary[last + i]);
  }
  const Entry& entry = kEntries[rid % 8];
  if (group ? entry.group : entry.user) return entry.name;
  return "";
}
