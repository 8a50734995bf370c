// The commands "confirm_hard_mode" and "status_confirmation", directly and
// through the plug-in's dispatcher.
#include <string>

#include "aec_commands.h"
#include "host/plugin_api.h"
#include "kernel_test_util.h"

namespace {

using kerneltest::ConfirmationSwap;
using kerneltest::EventsOfKind;
using kerneltest::MakeRequest;
using kerneltest::ParamOf;
using kerneltest::PinnedStateConfirmation;

class ConfirmationCommandsTest : public kxtest::SandboxTest {};

// The status reply for a confirmation pinned to `state`.
boost::shared_ptr<IXml> StatusFor(int state) {
  ConfirmationSwap swap(new PinnedStateConfirmation(state));
  auto request = MakeRequest("<request command=\"status_confirmation\"/>");
  aec::HandleStatusConfirmation(request.get());
  return request->reply->GetNode("status_confirmation");
}

TEST_F(ConfirmationCommandsTest, StatusDescribesEachKnownState) {
  const std::pair<int, std::string> expected[] = {
      {0, "AEC hard mode is awaiting confirmation after reboot"},
      {1, "AEC hard mode is awaiting confirmation"},
      {2, "AEC hard mode is confirmed"},
      {3,
       "AEC hard mode was not confirmed. You need to re-enable and confirm "
       "it"},
  };
  for (const auto& [state, description] : expected) {
    SCOPED_TRACE(state);
    const auto status = StatusFor(state);
    ASSERT_TRUE(status);
    EXPECT_EQ(ParamOf(status, "state"), std::to_string(state));
    EXPECT_EQ(ParamOf(status, "description"), description);
  }
}

TEST_F(ConfirmationCommandsTest, StatusOfUnknownStateHasEmptyDescription) {
  const auto status = StatusFor(7);
  ASSERT_TRUE(status);
  EXPECT_EQ(ParamOf(status, "state"), "7");
  EXPECT_EQ(ParamOf(status, "description"), "");
}

TEST_F(ConfirmationCommandsTest, StatusOfNegativeStateKeepsItsSign) {
  const auto status = StatusFor(-4);
  ASSERT_TRUE(status);
  EXPECT_EQ(ParamOf(status, "state"), "-4");
  EXPECT_EQ(ParamOf(status, "description"), "");
}

TEST_F(ConfirmationCommandsTest, StatusCarriesNoResultField) {
  const auto status = StatusFor(2);
  ASSERT_TRUE(status);
  EXPECT_EQ(status->ChildNames(),
            (std::vector<std::string>{"state", "description"}));
}

TEST_F(ConfirmationCommandsTest, StatusOfFreshInstallationIsConfirmed) {
  auto request = MakeRequest("<request command=\"status_confirmation\"/>");
  aec::HandleStatusConfirmation(request.get());
  const auto status = request->reply->GetNode("status_confirmation");
  ASSERT_TRUE(status);
  EXPECT_EQ(ParamOf(status, "state"), "2");
  EXPECT_EQ(ParamOf(status, "description"), "AEC hard mode is confirmed");
}

TEST_F(ConfirmationCommandsTest, ConfirmWhileAwaitingAnswersOneAndConfirms) {
  auto& confirmation = AecHardModeConfirmation::Get();
  confirmation->RequiereConfirmation();
  ASSERT_TRUE(confirmation->Check(true));
  ASSERT_TRUE(kxtest::Exists(kerneltest::kWarningFile));

  auto request = MakeRequest("<request command=\"confirm_hard_mode\"/>");
  aec::HandleConfirmHardMode(request.get());

  const auto reply = request->reply->GetNode("confirm_hard_mode");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->ChildNames(), std::vector<std::string>{"result"});
  EXPECT_EQ(ParamOf(reply, "result"), "1");
  EXPECT_EQ(confirmation->State(), 2);
  EXPECT_FALSE(kxtest::Exists(kerneltest::kWarningFile));
}

TEST_F(ConfirmationCommandsTest, ConfirmRefusedAnswersResultZeroOnly) {
  kerneltest::DriveToNotConfirmed();
  auto request = MakeRequest("<request command=\"confirm_hard_mode\"/>");
  aec::HandleConfirmHardMode(request.get());
  const auto reply = request->reply->GetNode("confirm_hard_mode");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->ChildNames(), std::vector<std::string>{"result"});
  EXPECT_EQ(ParamOf(reply, "result"), "0");
  EXPECT_EQ(AecHardModeConfirmation::Get()->State(), 3);
}

TEST_F(ConfirmationCommandsTest, BothCommandsAreReachableThroughTheTable) {
  for (const std::string command :
       {"confirm_hard_mode", "status_confirmation"}) {
    SCOPED_TRACE(command);
    kxhost::ClearEvents();
    auto request = MakeRequest("<request command=\"" + command + "\"/>");
    plugin_exec(request.get());
    const auto sent = EventsOfKind("send_message");
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_TRUE(EventsOfKind("free_msg_memory").empty());
    EXPECT_TRUE(request->reply->GetNode(command));
  }
}

}  // namespace
