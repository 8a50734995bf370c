// The members of the whitelist: local account and group names.
#pragma once

#include <string>
#include <vector>

struct UsersAndGroups {
  std::vector<std::string> users;
  std::vector<std::string> groups;
};

// Loose, order-insensitive and one-sided on purpose: the lists must have the
// same lengths and every entry on the left must occur on the right.
// Duplicates are not counted, so {a, a} == {a, b} while {a, b} != {a, a}.
// Callers only ask "does the new value differ from the stored one", for which
// this is enough; do not use it as a true equality.
bool operator==(const UsersAndGroups& left, const UsersAndGroups& right);
bool operator!=(const UsersAndGroups& left, const UsersAndGroups& right);
