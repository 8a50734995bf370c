#include "peer.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <vector>

namespace kxserv {

bool MayTalk(uid_t uid, gid_t gid, const std::string& group) {
  if (uid == 0) return true;
  std::vector<char> buffer(16384);
  struct group entry;
  struct group* found = nullptr;
  if (getgrnam_r(group.c_str(), &entry, buffer.data(), buffer.size(), &found) !=
          0 ||
      found == nullptr) {
    return false;
  }
  const gid_t admin = found->gr_gid;
  if (gid == admin) return true;
  std::vector<char> user_buffer(16384);
  struct passwd user;
  struct passwd* who = nullptr;
  if (getpwuid_r(uid, &user, user_buffer.data(), user_buffer.size(), &who) !=
          0 ||
      who == nullptr) {
    return false;
  }
  int count = 64;
  std::vector<gid_t> groups(count);
  if (getgrouplist(who->pw_name, who->pw_gid, groups.data(), &count) < 0) {
    groups.resize(count);
    if (getgrouplist(who->pw_name, who->pw_gid, groups.data(), &count) < 0) {
      return false;
    }
  }
  groups.resize(count);
  for (gid_t g : groups) {
    if (g == admin) return true;
  }
  return false;
}

}  // namespace kxserv
