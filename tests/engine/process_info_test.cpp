// Which identity decides: the real uid, the real gid and the supplementary
// groups of /proc/PID/status.
#include "process_info.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "parameters.h"

namespace aec::engine {
namespace {

TEST(ProcessInfoTest, RealIdsAndSupplementaryGroupsAreTaken) {
  const std::string status =
      "Name:\tsh\nUid:\t1001\t0\t0\t0\nGid:\t2001\t0\t0\t0\n"
      "Groups:\t5 2001 7 \nVmRSS:\t1 kB\n";
  ProcessIdentity id;
  ASSERT_TRUE(ParseProcessStatus(status, &id));
  EXPECT_EQ(id.uid, 1001u);
  EXPECT_EQ(id.gids, (std::vector<std::uint32_t>{2001, 5, 7}));
}

TEST(ProcessInfoTest, StatusWithoutIdsIsRefused) {
  ProcessIdentity id;
  EXPECT_FALSE(ParseProcessStatus("Name:\tx\n", &id));
  EXPECT_FALSE(ParseProcessStatus("Uid:\tabc\t0\t0\t0\nGid:\t1\n", &id));
}

TEST(ProcessInfoTest, IdsOutOfRangeOrSignedAreRefusedAndNoGroupsIsNone) {
  ProcessIdentity id;
  EXPECT_FALSE(
      ParseProcessStatus("Uid:\t4294967296\t0\t0\t0\nGid:\t1\n", &id));
  EXPECT_FALSE(ParseProcessStatus("Uid:\t+5\t0\t0\t0\nGid:\t1\n", &id));
  EXPECT_FALSE(ParseProcessStatus("Uid:\t\nGid:\t1\n", &id));
  EXPECT_FALSE(
      ParseProcessStatus("Uid:\t1\nGid:\t1\nGroups:\t3 -4\n", &id));
  ASSERT_TRUE(ParseProcessStatus(
      "Uid:\t4294967295 0 0 0\nGid:  9\t0\t0\t0\nGroups:\t\n", &id));
  EXPECT_EQ(id.uid, 4294967295u);
  EXPECT_EQ(id.gids, (std::vector<std::uint32_t>{9}));
}

TEST(ProcessInfoTest, OwnProcessIsRead) {
  ProcessIdentity id;
  ASSERT_TRUE(ReadProcessIdentity(getpid(), &id));
  EXPECT_EQ(id.uid, getuid());
  ASSERT_FALSE(id.gids.empty());
  EXPECT_EQ(id.gids.front(), getgid());
}

TEST(ParametersTest, JunkIsRefusedAndValuesInRangeTaken) {
  int v = -1;
  EXPECT_TRUE(ParseParameter("3\n", 3, &v));
  EXPECT_EQ(v, 3);
  EXPECT_TRUE(ParseParameter("15", 255, &v));
  EXPECT_EQ(v, 15);
  EXPECT_FALSE(ParseParameter("4", 3, &v));
  EXPECT_FALSE(ParseParameter("", 3, &v));
  EXPECT_FALSE(ParseParameter("1x", 3, &v));
  EXPECT_FALSE(ParseParameter("-1", 3, &v));
  EXPECT_EQ(v, 15);
}

} // namespace
} // namespace aec::engine
