#include "users_and_groups.h"

#include <algorithm>

namespace {

bool EveryLeftInRight(const std::vector<std::string>& left,
                      const std::vector<std::string>& right) {
  for (const std::string& item : left) {
    if (std::find(right.begin(), right.end(), item) == right.end()) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool operator==(const UsersAndGroups& left, const UsersAndGroups& right) {
  if (left.users.size() != right.users.size() ||
      left.groups.size() != right.groups.size()) {
    return false;
  }
  return EveryLeftInRight(left.users, right.users) &&
         EveryLeftInRight(left.groups, right.groups);
}

bool operator!=(const UsersAndGroups& left, const UsersAndGroups& right) {
  return !(left == right);
}
