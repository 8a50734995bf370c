// Running programs without a shell.
#include "host/tty_helpers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kxtest.h"

namespace {

class ExecCommand : public kxtest::SandboxTest {
 protected:
  int Run(std::vector<std::string> words, int flags = 0) {
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    return TtyHelpers(flags).ExecCommand(argv);
  }
};

TEST_F(ExecCommand, ReturnsTheExitCode) {
  kxtest::FakeBehaviour ok;
  kxtest::InstallFakeTool("kxaide", ok);
  EXPECT_EQ(Run({"/opt/korvex/bin/kxaide", "--init"}), 0);
  kxtest::FakeBehaviour failing;
  failing.exit_code = 5;
  kxtest::InstallFakeTool("kxaide", failing);
  EXPECT_EQ(Run({"/opt/korvex/bin/kxaide"}), 5);
  EXPECT_EQ(kxtest::FakeToolCalls("kxaide").size(), 2u);
}

TEST_F(ExecCommand, SignalDeathGives128PlusTheSignal) {
  kxtest::FakeBehaviour dying;
  dying.kill_signal = SIGTERM;
  kxtest::InstallFakeTool("kxaide", dying);
  EXPECT_EQ(Run({"/opt/korvex/bin/kxaide"}), 128 + SIGTERM);
}

TEST_F(ExecCommand, MissingProgramGives127) {
  EXPECT_EQ(Run({"/opt/korvex/bin/no-such-tool"}), 127);
  EXPECT_EQ(TtyHelpers(0).ExecCommand({}), 127);
  EXPECT_EQ(TtyHelpers(0).ExecCommand({nullptr}), 127);
}

TEST_F(ExecCommand, ArgumentsReachTheProgramUninterpreted) {
  kxtest::InstallFakeTool("kxaide", {});
  const std::vector<std::string> args = {
      "two words", "$(touch /opt/korvex/pwned)", "; touch /opt/korvex/pwned2",
      "*", "'quoted'", "line\nbreak", ""};
  std::vector<std::string> words = {"/opt/korvex/bin/kxaide"};
  words.insert(words.end(), args.begin(), args.end());
  EXPECT_EQ(Run(words), 0);
  const auto calls = kxtest::FakeToolCalls("kxaide");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0], args);
  EXPECT_FALSE(kxtest::Exists("/opt/korvex/pwned"));
  EXPECT_FALSE(kxtest::Exists("/opt/korvex/pwned2"));
}

TEST_F(ExecCommand, VectorWithoutTerminatorStillWorks) {
  kxtest::InstallFakeTool("kxaide", {});
  std::string program = "/opt/korvex/bin/kxaide";
  std::string arg = "x";
  EXPECT_EQ(TtyHelpers(0).ExecCommand({&program[0], &arg[0]}), 0);
  const auto calls = kxtest::FakeToolCalls("kxaide");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0], std::vector<std::string>{"x"});
}

TEST_F(ExecCommand, StandardInputIsDevNull) {
  EXPECT_EQ(Run({"/bin/sh", "-c", "[ \"$(readlink /proc/self/fd/0)\" = /dev/null ]"}),
            0);
}

TEST_F(ExecCommand, HostDescriptorsDoNotLeakIntoTheChild) {
  // Opened without close-on-exec, as careless code elsewhere in the host
  // might.
  const int fd = open("/opt/korvex/leak", O_WRONLY | O_CREAT, 0600);
  ASSERT_GE(fd, 3);
  const std::string check = "[ ! -e /proc/self/fd/" + std::to_string(fd) + " ]";
  // Sanity: the check does see descriptors that are open in the child.
  EXPECT_NE(Run({"/bin/sh", "-c", "[ ! -e /proc/self/fd/0 ]"}), 0);
  EXPECT_EQ(Run({"/bin/sh", "-c", check}), 0);
  close(fd);
}

TEST_F(ExecCommand, DiscardOutputSilencesTheChild) {
  kxtest::FakeBehaviour talking;
  talking.lines = {"checksum line"};
  kxtest::InstallFakeTool("kxaide", talking);
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(Run({"/opt/korvex/bin/kxaide"}, TtyHelpers::kDiscardOutput), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(Run({"/opt/korvex/bin/kxaide"}, 0), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "checksum line\n");
}

}  // namespace
