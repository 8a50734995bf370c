// The plug-in's confirmation object: its files, its four handlers and the
// login warning.
#include "aec_policies/aechardmodeconfirmation.h"

#include <sys/stat.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <string>
#include <vector>

#include "kernel_test_util.h"

namespace {

using kerneltest::EventsOfKind;
using kerneltest::kWarningFile;

class HardModeConfirmationTest : public kxtest::SandboxTest {};

int ModeOf(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return -1;
  return static_cast<int>(info.st_mode & 07777);
}

TEST_F(HardModeConfirmationTest, IsOneObjectWithTheInstallRootPaths) {
  auto& first = AecHardModeConfirmation::Get();
  auto& second = AecHardModeConfirmation::Get();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first.get(), second.get());
  EXPECT_EQ(first->StateFile(), "/opt/korvex/var/aec_confirm");
  EXPECT_EQ(first->LockFile(), "/opt/korvex/var/tmp/rm/aec_confirm_lock");
  EXPECT_EQ(AecHardModeConfirmation::WarningFilePath(),
            "/opt/korvex/var/tmp/pam_messages/aec_confirm_warning");
}

TEST_F(HardModeConfirmationTest,
       WarningFileHoldsExactlyOneLineAndIsReadableByGroupAndOthers) {
  // A restrictive umask must not keep the warning from users at login.
  const mode_t old_mask = ::umask(077);
  const bool written =
      AecHardModeConfirmation::Get()->HandlerWaitForConfirmation();
  ::umask(old_mask);

  ASSERT_TRUE(written);
  EXPECT_EQ(kxtest::ReadFile(kWarningFile),
            "Contact your administrator to confirm AEC hard mode (command "
            "`kxaecctl confirm`).\n");
  const int mode = ModeOf(kWarningFile);
  EXPECT_EQ(mode & (S_IRGRP | S_IROTH), S_IRGRP | S_IROTH);
  // Only read bits are added: nobody but the owner may change it.
  EXPECT_EQ(mode & (S_IWGRP | S_IWOTH | S_IXGRP | S_IXOTH), 0);
  EXPECT_EQ(mode & S_IRWXU, S_IRUSR | S_IWUSR);
}

TEST_F(HardModeConfirmationTest, WarningFileIsRewrittenWholeNotAppended) {
  kxtest::WriteFile(kWarningFile, "an old and much longer notice\nline 2\n");
  ASSERT_TRUE(AecHardModeConfirmation::Get()->HandlerWaitForConfirmation());
  const std::string text = kxtest::ReadFile(kWarningFile);
  EXPECT_EQ(text.find("old"), std::string::npos);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

TEST_F(HardModeConfirmationTest,
       WarningFileThatCannotBeCreatedMakesWaitingReportFailure) {
  ASSERT_EQ(::rmdir("/opt/korvex/var/tmp/pam_messages"), 0);
  log_.Clear();
  EXPECT_FALSE(AecHardModeConfirmation::Get()->HandlerWaitForConfirmation());
  EXPECT_FALSE(kxtest::Exists(kWarningFile));
  // The handler itself stays silent; the host logs handler results.
  for (const auto& line : log_.Lines()) {
    EXPECT_EQ(line.find("aechardmodeconfirmation"), std::string::npos) << line;
  }
}

TEST_F(HardModeConfirmationTest, WarningFileLeavesNoTemporaryBehind) {
  ASSERT_TRUE(AecHardModeConfirmation::Get()->HandlerWaitForConfirmation());
  std::vector<std::string> messages;
  for (boost::filesystem::directory_iterator
           it("/opt/korvex/var/tmp/pam_messages"),
       end;
       it != end; ++it) {
    messages.push_back(it->path().filename().string());
  }
  EXPECT_EQ(messages, std::vector<std::string>{"aec_confirm_warning"});
  for (boost::filesystem::directory_iterator it("/opt/korvex/var/tmp"), end;
       it != end; ++it) {
    EXPECT_TRUE(boost::filesystem::is_directory(it->path())) << it->path();
  }
}

TEST_F(HardModeConfirmationTest, InitRemovesWarningAndAlertsEveryUser) {
  kxtest::WriteFile(kWarningFile, "stale\n");
  kxhost::ClearEvents();

  EXPECT_TRUE(AecHardModeConfirmation::Get()->HandlerInit());

  EXPECT_FALSE(kxtest::Exists(kWarningFile));
  const auto notices = EventsOfKind("send_notify_systemwide");
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_EQ(notices[0].args,
            (std::vector<std::string>{
                "ALERT",
                "It is necessary to confirm AEC hard mode after reboot. "
                "Otherwise, soft mode will be enabled."}));
}

TEST_F(HardModeConfirmationTest, ConfirmedAndNotConfirmedBehaveIdentically) {
  auto& confirmation = AecHardModeConfirmation::Get();
  for (int round = 0; round < 2; ++round) {
    const bool not_confirmed = round == 1;
    SCOPED_TRACE(not_confirmed ? "HandlerNotConfirmed" : "HandlerConfirmed");
    auto handler = [&] {
      return not_confirmed ? confirmation->HandlerNotConfirmed()
                           : confirmation->HandlerConfirmed();
    };
    kxhost::ClearEvents();
    kxtest::WriteFile(kWarningFile, "notice\n");
    EXPECT_TRUE(handler());
    EXPECT_FALSE(kxtest::Exists(kWarningFile));
    // Without a warning file: still true, still nothing else done.
    EXPECT_TRUE(handler());
    EXPECT_FALSE(kxtest::Exists(kWarningFile));
    EXPECT_TRUE(kxhost::Events().empty());
  }
}

TEST_F(HardModeConfirmationTest, RemovingMissingWarningFileIsNoError) {
  ASSERT_FALSE(kxtest::Exists(kWarningFile));
  EXPECT_NO_THROW(AecHardModeConfirmation::DeleteMessageFile());
  // Even without the directory.
  ASSERT_EQ(::rmdir("/opt/korvex/var/tmp/pam_messages"), 0);
  EXPECT_NO_THROW(AecHardModeConfirmation::DeleteMessageFile());
}

TEST_F(HardModeConfirmationTest, SwitchingHardModeOnAnewLeavesTheWarning) {
  auto& confirmation = AecHardModeConfirmation::Get();
  confirmation->RequiereConfirmation();
  EXPECT_TRUE(confirmation->Check(true));
  EXPECT_EQ(confirmation->State(), 1);
  EXPECT_TRUE(kxtest::Exists(kWarningFile));

  EXPECT_TRUE(confirmation->Confirm());
  EXPECT_EQ(confirmation->State(), 2);
  EXPECT_FALSE(kxtest::Exists(kWarningFile));
}

TEST_F(HardModeConfirmationTest, RebootWhileAwaitingAlertsAndKeepsWarning) {
  auto& confirmation = AecHardModeConfirmation::Get();
  confirmation->RequiereConfirmation();
  ASSERT_TRUE(confirmation->Check(true));
  kerneltest::SimulateReboot();
  kxhost::ClearEvents();

  EXPECT_TRUE(confirmation->Check(false));
  EXPECT_EQ(confirmation->State(), 0);
  EXPECT_EQ(EventsOfKind("send_notify_systemwide").size(), 1u);
  EXPECT_TRUE(kxtest::Exists(kWarningFile));
}

TEST_F(HardModeConfirmationTest, SecondRebootWithoutConfirmationRefuses) {
  kerneltest::DriveToNotConfirmed();
  auto& confirmation = AecHardModeConfirmation::Get();
  EXPECT_EQ(confirmation->State(), 3);
  EXPECT_FALSE(kxtest::Exists(kWarningFile));
  EXPECT_FALSE(confirmation->Check(false));
  EXPECT_FALSE(confirmation->Confirm());
}

}  // namespace
