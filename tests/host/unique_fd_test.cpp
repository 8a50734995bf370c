// An owned descriptor is closed exactly once, by whoever owns it last.
#include "host/unique_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <utility>

namespace {

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

int OpenDevNull() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }

TEST(UniqueFdTest, ClosesWhatItOwnsWhenItGoes) {
  int fd = -1;
  {
    const kxfs::UniqueFd owner(OpenDevNull());
    fd = owner.get();
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(IsOpen(fd));
  }
  EXPECT_FALSE(IsOpen(fd));
}

TEST(UniqueFdTest, AFailedOpenOwnsNothing) {
  const kxfs::UniqueFd owner(::open("/nonexistent/file", O_RDONLY));
  EXPECT_LT(owner.get(), 0);
}

TEST(UniqueFdTest, ReleaseGivesTheDescriptorUpOpen) {
  int fd = -1;
  {
    kxfs::UniqueFd owner(OpenDevNull());
    fd = owner.release();
    EXPECT_EQ(owner.get(), -1);
  }
  EXPECT_TRUE(IsOpen(fd));
  ::close(fd);
}

TEST(UniqueFdTest, MoveHandsOverWithoutClosing) {
  kxfs::UniqueFd first(OpenDevNull());
  const int fd = first.get();
  {
    const kxfs::UniqueFd second(std::move(first));
    EXPECT_EQ(second.get(), fd);
    EXPECT_EQ(first.get(), -1);  // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(IsOpen(fd));
  }
  EXPECT_FALSE(IsOpen(fd));
}

TEST(UniqueFdTest, ResetClosesTheOldAndTakesTheNew) {
  kxfs::UniqueFd owner(OpenDevNull());
  const int old_fd = owner.get();
  const int new_fd = OpenDevNull();
  owner.reset(new_fd);
  EXPECT_FALSE(IsOpen(old_fd));
  EXPECT_EQ(owner.get(), new_fd);
  EXPECT_TRUE(IsOpen(new_fd));
}

}  // namespace
