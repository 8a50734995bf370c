// Starting, stopping, signals, readiness, and state that survives a crash.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>

#include "common/frame.h"
#include "policy_documents.h"
#include "service_fixture.h"

namespace servicetest {
namespace {

TEST_F(ServiceTest, SigtermStopsCleanlyAndRemovesTheSocket) {
  Service service(root_.dir());
  EXPECT_EQ(Field(Ask(socket(), "<kxserv command=\"info\"/>"), "result"), "1");
  const int status = service.Stop(SIGTERM);
  ASSERT_TRUE(WIFEXITED(status)) << service.Log();
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_FALSE(kxtest::Exists("/opt/korvex/var/run/kxserv.sock"));
  const std::string log = service.Log();
  // plugin_init once at start, plugin_exit once at stop.
  EXPECT_NE(log.find("aec: initialized"), std::string::npos) << log;
  EXPECT_NE(log.find("aec: uninitialized"), std::string::npos) << log;
  EXPECT_NE(log.find("kx_serv["), std::string::npos) << log;
}

TEST_F(ServiceTest, PluginIsInitialisedOnceForManyRequests) {
  Service service(root_.dir());
  for (int i = 0; i < 5; ++i) Ask(socket(), "<kxserv command=\"info\"/>");
  service.Stop(SIGTERM);
  const std::string log = service.Log();
  std::size_t count = 0;
  for (auto at = log.find("aec: initialized"); at != std::string::npos;
       at = log.find("aec: initialized", at + 1)) {
    ++count;
  }
  EXPECT_EQ(count, 1u);
}

TEST_F(ServiceTest, SigtermLetsTheRunningRequestFinish) {
  // The rule-control tool takes a second: the request is still running when
  // the signal comes.
  kxtest::WriteFile("/opt/korvex/bin/kxaecctl",
                    "#!/bin/sh\ntouch /opt/korvex/var/tmp/tool-started\n"
                    "sleep 1\nexit 0\n",
                    0755);
  Service service(root_.dir());
  const int fd = kxserv::ConnectTo(socket());
  kxserv::SendFrame(fd, SetPoliciesRequest(StatePolicies(1, 0)));
  ASSERT_TRUE(WaitFor(
      [] { return kxtest::Exists("/opt/korvex/var/tmp/tool-started"); }));
  kill(service.pid(), SIGTERM);
  const std::string reply = kxserv::ReadFrame(fd, 10000);
  close(fd);
  EXPECT_EQ(Field(reply, "result"), "1") << reply;
  const int status = service.Stop(SIGTERM);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(ServiceTest, TellsSystemdWhenReady) {
  const std::string path = root_.dir() + "/notify.sock";
  const int listener = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  ASSERT_EQ(
      bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  Service service(root_.dir(), {"NOTIFY_SOCKET=" + path});
  char buffer[256] = {};
  timeval wait{5, 0};
  setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  const ssize_t n = recv(listener, buffer, sizeof buffer - 1, 0);
  close(listener);
  ASSERT_GT(n, 0);
  EXPECT_EQ(std::string(buffer).rfind("READY=1\n", 0), 0u) << buffer;
}

TEST_F(ServiceTest, SighupRereadsTheConfiguration) {
  Service service(root_.dir());
  const std::string request =
      "<kxserv command=\"info\"/>" + std::string(200, ' ');
  EXPECT_EQ(Field(Ask(socket(), request), "result"), "1");
  Configure("max_request = 100\n");
  kill(service.pid(), SIGHUP);
  ASSERT_TRUE(WaitFor([&] {
    return service.Log().find("configuration re-read") != std::string::npos;
  }));
  EXPECT_EQ(Field(Ask(socket(), request), "error_code"), "too_large");
}

TEST_F(ServiceTest, BadConfigurationOnSighupKeepsTheOldOne) {
  Service service(root_.dir());
  Configure("max_requests = 100\n");
  kill(service.pid(), SIGHUP);
  ASSERT_TRUE(WaitFor([&] {
    return service.Log().find("configuration not changed") != std::string::npos;
  }));
  EXPECT_EQ(Field(Ask(socket(), "<kxserv command=\"info\"/>"), "result"), "1");
}

TEST_F(ServiceTest, RefusesToStartWithABadConfiguration) {
  Configure("admin_group = kxadmin\nmax_clients = many\n");
  const RunResult run = RunKxserv({"--root", root_.dir()});
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_NE(run.output.find("kxserv.conf:2"), std::string::npos) << run.output;
}

TEST_F(ServiceTest, SecondServiceOnTheSameRootRefusesToStart) {
  Service first(root_.dir());
  const RunResult second = RunKxserv({"--root", root_.dir()});
  EXPECT_EQ(second.exit_code, 1);
  EXPECT_NE(second.output.find("another kxserv is serving"), std::string::npos)
      << second.output;
  EXPECT_EQ(Field(Ask(socket(), "<kxserv command=\"info\"/>"), "result"), "1");
}

TEST_F(ServiceTest, HelpDescribesTheOptions) {
  const RunResult help = RunKxserv({"--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.output.find("--root DIR"), std::string::npos);
  EXPECT_EQ(RunKxserv({"--bogus"}).exit_code, 2);
}

TEST_F(ServiceTest,
       KillNineAndRestartKeepsRulesWhitelistSettingsAndConfirmation) {
  std::string before;
  {
    Service service(root_.dir());
    const std::string import =
        Ask(socket(), "<kxserv command=\"import-policies\"><json>" +
                          ImportDocument("kept-rule", "alice") +
                          "</json></kxserv>");
    ASSERT_EQ(Field(import, "result"), "1") << import;
    // Control on, hard mode: waits for confirmation; then confirmed.
    ASSERT_EQ(
        Field(Ask(socket(), SetPoliciesRequest(StatePolicies(1, 1))), "result"),
        "1");
    const std::string confirm =
        Ask(socket(), "<request command=\"confirm_hard_mode\"/>");
    ASSERT_EQ(Field(confirm, "result"), "1") << confirm;
    before = Ask(socket(),
                 "<request command=\"get\" rule_resource=\"1\" whitelist=\"1\" "
                 "resource-exception=\"1\"><rule/></request>") +
             Ask(socket(), "<request command=\"status_confirmation\"/>") +
             Field(Ask(socket(), "<kxserv command=\"policies\"/>"), "policies");
    const int status = service.Stop(SIGKILL);
    ASSERT_TRUE(WIFSIGNALED(status));
  }
  ASSERT_NE(before.find("kept-rule"), std::string::npos) << before;
  ASSERT_NE(before.find("alice"), std::string::npos) << before;
  Service again(root_.dir());
  const std::string after =
      Ask(socket(),
          "<request command=\"get\" rule_resource=\"1\" whitelist=\"1\" "
          "resource-exception=\"1\"><rule/></request>") +
      Ask(socket(), "<request command=\"status_confirmation\"/>") +
      Field(Ask(socket(), "<kxserv command=\"policies\"/>"), "policies");
  EXPECT_EQ(after, before);
  const std::string policies = Ask(socket(), "<kxserv command=\"policies\"/>");
  EXPECT_NE(policies.find("name=\"state\""), std::string::npos);
  EXPECT_EQ(
      kxtest::ReadFile("/opt/korvex/var/run/sysctl/korvex/secure/environment"),
      "3");
}

}  // namespace
}  // namespace servicetest
