// The whole hard-mode story under kxhost: every kxhost run is one service
// start; removing the lock file between runs is a reboot.
#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "kernel_test_util.h"

namespace {

using kerneltest::kEnvironmentFile;
using kerneltest::kVerboseFile;
using kerneltest::kWarningFile;
using kerneltest::ReadParameter;
using kerneltest::SimulateReboot;

const std::string kEventsFile = "/opt/korvex/var/log/kxhost-events.log";
const std::string kAlertText =
    "It is necessary to confirm AEC hard mode after reboot. Otherwise, soft "
    "mode will be enabled.";

class HardModeEndToEndTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override { kxtest::InstallFakeTool("kxaecctl", {}); }

  // A file outside /opt/korvex's view for kxhost to read; returns its path.
  std::string WriteInput(const std::string& name, const std::string& text) {
    const std::string path = root_.dir() + "/" + name;
    kxtest::WriteFile(path, text);
    return path;
  }

  // A policies document setting the named policies of the plug-in's group.
  std::string PoliciesFile(
      const std::vector<std::pair<std::string, std::string>>& values) {
    std::string text = "<policies>\n";
    for (const auto& [name, value] : values) {
      text += "  <policy group=\"aec\" name=\"" + name +
              "\" source=\"local\"><type>" + value + "</type></policy>\n";
    }
    text += "</policies>\n";
    return WriteInput("policies-" + std::to_string(++inputs_) + ".xml", text);
  }

  std::string RequestFile(const std::string& command) {
    return WriteInput(command + ".xml",
                      "<request command=\"" + command + "\"/>\n");
  }

  // One service start running `steps`; the events it caused are kept in
  // new_events_.
  kxtest::RunResult Start(const std::vector<std::string>& steps) {
    const std::size_t before = AllEvents().size();
    std::vector<std::string> args = {"--root", root_.dir(), "--plugin",
                                     KX_PLUGIN_PATH, "-v"};
    args.insert(args.end(), steps.begin(), steps.end());
    kxtest::RunResult result = kxtest::RunKxhost(args);
    const auto all = AllEvents();
    new_events_.assign(all.begin() + static_cast<long>(before), all.end());
    return result;
  }

  static std::vector<std::string> AllEvents() {
    std::vector<std::string> lines;
    std::ifstream in(kEventsFile);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  bool NewEvent(const std::string& line) const {
    return std::find(new_events_.begin(), new_events_.end(), line) !=
           new_events_.end();
  }

  std::size_t NewEventsOfKind(const std::string& kind) const {
    return static_cast<std::size_t>(std::count_if(
        new_events_.begin(), new_events_.end(), [&](const std::string& line) {
          return line.compare(0, kind.size() + 1, kind + "\t") == 0;
        }));
  }

  static std::vector<std::vector<std::string>> RestartCalls() {
    std::vector<std::vector<std::string>> restarts;
    for (const auto& call : kxtest::FakeToolCalls("kxaecctl")) {
      if (!call.empty() && call[0] == "restart") restarts.push_back(call);
    }
    return restarts;
  }

  std::vector<std::string> new_events_;
  int inputs_ = 0;
};

// Positions of `needles` in `text`, in order; fails when one is missing or
// out of order.
void ExpectInOrder(const std::string& text,
                   const std::vector<std::string>& needles) {
  std::size_t from = 0;
  for (const auto& needle : needles) {
    const std::size_t at = text.find(needle, from);
    ASSERT_NE(at, std::string::npos)
        << "missing or out of order: " << needle << "\nin:\n"
        << text;
    from = at + needle.size();
  }
}

TEST_F(HardModeEndToEndTest, SwitchingControlOnInSoftModeRestartsRules) {
  const auto run = Start({"set-policies", PoliciesFile({{"state", "1"}})});
  ASSERT_EQ(run.exit_code, 0) << run.err;

  // The restart run takes no standard options.
  EXPECT_EQ(RestartCalls(),
            (std::vector<std::vector<std::string>>{{"restart"}}));
  // state | mode << 1: on, soft.
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "1");
  EXPECT_FALSE(kxtest::Exists(kWarningFile));
  EXPECT_EQ(NewEventsOfKind("block_station"), 0u);
}

TEST_F(HardModeEndToEndTest, ConfirmedHardModeSurvivesTheReboot) {
  auto run = Start({"set-policies", PoliciesFile({{"state", "1"}})});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  ASSERT_EQ(ReadParameter(kEnvironmentFile), "1");

  run = Start({"set-policies", PoliciesFile({{"mode", "1"}})});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "3");
  EXPECT_TRUE(kxtest::Exists(kWarningFile));

  SimulateReboot();
  run = Start({"exec", RequestFile("status_confirmation")});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_TRUE(NewEvent("send_notify_systemwide\tALERT\t" + kAlertText));
  EXPECT_TRUE(kxtest::Exists(kWarningFile));
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "3");
  ExpectInOrder(run.out, {"<state>0</state>",
                          "<description>AEC hard mode is awaiting "
                          "confirmation after reboot</description>"});

  run = Start({"exec", RequestFile("confirm_hard_mode"), "exec",
               RequestFile("status_confirmation")});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  ExpectInOrder(run.out, {"<confirm_hard_mode>", "<result>1</result>",
                          "<status_confirmation>", "<state>2</state>",
                          "<description>AEC hard mode is confirmed"});
  EXPECT_FALSE(kxtest::Exists(kWarningFile));
  EXPECT_EQ(NewEventsOfKind("send_notify_systemwide"), 0u);

  // Confirmed: the next boot keeps hard mode without asking again.
  SimulateReboot();
  run = Start({"exec", RequestFile("status_confirmation")});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "3");
  EXPECT_EQ(NewEventsOfKind("send_notify_systemwide"), 0u);
  EXPECT_FALSE(kxtest::Exists(kWarningFile));
  ExpectInOrder(run.out, {"<state>2</state>"});
  // Every service start with control on re-ran the rules, never with -C -v.
  for (const auto& call : RestartCalls()) {
    EXPECT_EQ(call, std::vector<std::string>{"restart"});
  }
  EXPECT_EQ(RestartCalls().size(), 6u);
}

TEST_F(HardModeEndToEndTest, NeverConfirmedHardModeFallsBackToSoftMode) {
  auto run =
      Start({"set-policies", PoliciesFile({{"state", "1"}, {"mode", "1"}})});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  ASSERT_EQ(ReadParameter(kEnvironmentFile), "3");

  SimulateReboot();
  run = Start({"exec", RequestFile("status_confirmation")});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  ASSERT_EQ(ReadParameter(kEnvironmentFile), "3");
  ASSERT_TRUE(NewEvent("send_notify_systemwide\tALERT\t" + kAlertText));
  ASSERT_TRUE(kxtest::Exists(kWarningFile));

  // The second boot without a confirmation: control stays on, soft mode.
  SimulateReboot();
  run = Start({"exec", RequestFile("status_confirmation"), "exec",
               RequestFile("confirm_hard_mode")});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "1");
  EXPECT_FALSE(kxtest::Exists(kWarningFile));
  EXPECT_NE(run.err.find("AEC Hard mode is off: AEC Hard Mode is not "
                         "confirmed"),
            std::string::npos)
      << run.err;
  ExpectInOrder(run.out,
                {"<state>3</state>",
                 "<description>AEC hard mode was not confirmed. You need to "
                 "re-enable and confirm it</description>",
                 "<confirm_hard_mode>", "<result>0</result>"});
  EXPECT_EQ(RestartCalls().back(), std::vector<std::string>{"restart"});
}

TEST_F(HardModeEndToEndTest, FailingRestartBlocksStationAndStillWrites) {
  kxtest::FakeBehaviour failing;
  failing.exit_code = 6;
  kxtest::InstallFakeTool("kxaecctl", failing);

  const auto run =
      Start({"set-policies", PoliciesFile({{"state", "1"}, {"mode", "1"}})});
  ASSERT_EQ(run.exit_code, 0) << run.err;

  EXPECT_TRUE(NewEvent("block_station\tFailed to apply AEC rules\t1"));
  EXPECT_EQ(ReadParameter(kEnvironmentFile), "3");
  EXPECT_NE(run.err.find("failed to apply AEC rules"), std::string::npos);
}

TEST_F(HardModeEndToEndTest, AuditMaskStartsAt15AndOpeningFilesMakesIt31) {
  auto run = Start({"state"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(ReadParameter(kVerboseFile), "15");

  run = Start({"set-policies", PoliciesFile({{"log_perm_openfile", "1"}})});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(ReadParameter(kVerboseFile), "31");

  // Stored: the next start writes the same mask.
  ASSERT_EQ(::unlink(kVerboseFile.c_str()), 0);
  run = Start({"state"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(ReadParameter(kVerboseFile), "31");
}

TEST_F(HardModeEndToEndTest, PoliciesListStateModeAndAuditEventsFirst) {
  const auto run = Start({"policies"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  ExpectInOrder(run.out,
                {"name=\"state\"", "name=\"mode\"", "name=\"log_perm_exec\"",
                 "name=\"log_deny_exec\"", "name=\"log_perm_openlib\"",
                 "name=\"log_deny_openlib\"", "name=\"log_perm_openfile\"",
                 "name=\"log_deny_openfile\""});
}

}  // namespace
