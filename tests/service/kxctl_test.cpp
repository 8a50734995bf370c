// The client kxctl as scripts use it: exit codes, standard input, watch.
#include <stdio.h>
#include <sys/wait.h>

#include <string>
#include <thread>

#include "policy_documents.h"
#include "service_fixture.h"

namespace servicetest {
namespace {

// kxctl with `args` (test-controlled, no quotes inside), `input` on
// standard input; standard output only.
RunResult Kxctl(const std::string& args, const std::string& input = "") {
  return RunShell("printf '%s' '" + input + "' | " +
                  std::string(KX_KXCTL_PATH) + " " + args + " 2>/dev/null");
}

TEST_F(ServiceTest, KxctlExitsZeroWhenTheResultIsOne) {
  Service service(root_.dir());
  const RunResult info = Kxctl("--root " + root_.dir() + " info");
  EXPECT_EQ(info.exit_code, 0);
  EXPECT_EQ(Field(info.output, "name"), "aec");
  const RunResult get =
      Kxctl("--root " + root_.dir() + " request get @whitelist=1");
  EXPECT_EQ(get.exit_code, 0) << get.output;
}

TEST_F(ServiceTest, KxctlExitsOneWhenAResultIsZero) {
  Service service(root_.dir());
  const RunResult missing =
      Kxctl("--root " + root_.dir() + " request get rule=no-such-rule");
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_EQ(Field(missing.output, "error_desc"),
            "Rule does not exists: no-such-rule");
  EXPECT_EQ(
      Kxctl("--root " + root_.dir() + " send -", "<request command=\"nope\"/>")
          .exit_code,
      1);
}

TEST_F(ServiceTest, KxctlReportsUsageAndUnreachableServiceApart) {
  EXPECT_EQ(Kxctl("--root " + root_.dir() + " frobnicate").exit_code, 2);
  // No service on this root.
  EXPECT_EQ(Kxctl("--root " + root_.dir() + " info").exit_code, 3);
}

TEST_F(ServiceTest, KxctlSendsStandardInputAsItIs) {
  Service service(root_.dir());
  const RunResult run = Kxctl("--socket " + socket() + " send -",
                              "<request command=\"status_confirmation\"/>");
  EXPECT_EQ(run.exit_code, 0) << run.output;
  EXPECT_NE(run.output.find("<status_confirmation>"), std::string::npos);
}

TEST_F(ServiceTest, KxctlWatchPrintsTheNotification) {
  Service service(root_.dir());
  RunResult watched;
  std::thread watcher(
      [&] { watched = Kxctl("--root " + root_.dir() + " watch --count 1"); });
  // The watcher is subscribed once the service counts a subscriber.
  ASSERT_TRUE(WaitFor([&] {
    return Field(Ask(socket(), "<kxserv command=\"state\"/>"), "subscribers") ==
           "1";
  }));
  Ask(socket(), SetPoliciesRequest(StatePolicies(1, 0)));
  watcher.join();
  EXPECT_EQ(watched.exit_code, 0);
  EXPECT_NE(watched.output.find("<event kind=\"update_clients\">"),
            std::string::npos)
      << watched.output;
}

}  // namespace
}  // namespace servicetest
