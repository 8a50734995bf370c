#include "users_and_groups.h"

#include <gtest/gtest.h>

namespace {

UsersAndGroups Make(std::vector<std::string> users,
                    std::vector<std::string> groups) {
  UsersAndGroups value;
  value.users = std::move(users);
  value.groups = std::move(groups);
  return value;
}

TEST(UsersAndGroupsTest, EqualListsInAnotherOrderAreEqual) {
  EXPECT_TRUE(Make({"a", "b"}, {"g", "h"}) == Make({"b", "a"}, {"h", "g"}));
  EXPECT_FALSE(Make({"a", "b"}, {"g", "h"}) != Make({"b", "a"}, {"h", "g"}));
}

TEST(UsersAndGroupsTest, DuplicatesMakeTheComparisonOneSided) {
  const UsersAndGroups twice = Make({"a", "a"}, {});
  const UsersAndGroups both = Make({"a", "b"}, {});
  EXPECT_TRUE(twice == both);
  EXPECT_FALSE(both == twice);
  EXPECT_TRUE(both != twice);
  EXPECT_FALSE(twice != both);
}

TEST(UsersAndGroupsTest, DifferentLengthsAreUnequal) {
  EXPECT_FALSE(Make({"a"}, {}) == Make({"a", "a"}, {}));
  EXPECT_FALSE(Make({}, {"g"}) == Make({}, {"g", "g"}));
}

TEST(UsersAndGroupsTest, UsersAndGroupsAreComparedSeparately) {
  // The same name as a user on one side and as a group on the other.
  EXPECT_FALSE(Make({"x"}, {"y"}) == Make({"y"}, {"x"}));
  EXPECT_FALSE(Make({"a"}, {"g"}) == Make({"a"}, {"h"}));
  EXPECT_TRUE(Make({}, {}) == Make({}, {}));
}

}  // namespace
