// Notifications: subscribers, notices on users' terminals, a blocked
// station.
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>
#include <utmp.h>

#include <boost/filesystem.hpp>
#include <cstring>
#include <fstream>
#include <string>

#include "common/frame.h"
#include "policy_documents.h"
#include "service_fixture.h"

namespace servicetest {
namespace {

// A subscribed connection.
int Subscribe(const std::string& socket) {
  const int fd = kxserv::ConnectTo(socket);
  kxserv::SendFrame(fd, "<kxserv command=\"subscribe\"/>");
  const std::string reply = kxserv::ReadFrame(fd, 5000);
  EXPECT_EQ(Field(reply, "subscribed"), "1") << reply;
  return fd;
}

TEST_F(ServiceTest, SubscriberReceivesThePolicyChange) {
  Service service(root_.dir());
  const int watcher = Subscribe(socket());
  const std::string reply =
      Ask(socket(), SetPoliciesRequest(StatePolicies(1, 0)));
  ASSERT_EQ(Field(reply, "result"), "1") << reply;
  const std::string event = kxserv::ReadFrame(watcher, 5000);
  close(watcher);
  EXPECT_NE(event.find("<event kind=\"update_clients\">"), std::string::npos)
      << event;
  EXPECT_EQ(Field(event, "plugin"), "aec");
}

TEST_F(ServiceTest, SubscriberThatNeverReadsDoesNotStallOthers) {
  Configure("write_timeout_ms = 500\n");
  Service service(root_.dir());
  const int sleeper = Subscribe(socket());
  const int watcher = Subscribe(socket());
  // Enough events to fill the sleeper's socket buffer many times over.
  for (int i = 0; i < 40; ++i) {
    ASSERT_EQ(Field(Ask(socket(), SetPoliciesRequest(StatePolicies(i % 2, 0))),
                    "result"),
              "1");
  }
  EXPECT_NE(kxserv::ReadFrame(watcher, 5000).find("update_clients"),
            std::string::npos);
  close(watcher);
  close(sleeper);
}

TEST_F(ServiceTest, NoticeReachesLoggedInUsersTerminals) {
  // A terminal of our own, listed in a utmp file of our own, stands for a
  // logged-in user.
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_GE(master, 0);
  ASSERT_EQ(grantpt(master), 0);
  ASSERT_EQ(unlockpt(master), 0);
  const std::string terminal = ptsname(master);
  ASSERT_EQ(terminal.rfind("/dev/", 0), 0u);
  // Opened once so the terminal stays while the service writes to it.
  const int slave = open(terminal.c_str(), O_RDWR | O_NOCTTY);
  ASSERT_GE(slave, 0);
  struct utmp entry {};
  entry.ut_type = USER_PROCESS;
  entry.ut_pid = getpid();
  std::strncpy(entry.ut_line, terminal.c_str() + 5, sizeof entry.ut_line - 1);
  std::strncpy(entry.ut_user, "alice", sizeof entry.ut_user - 1);
  {
    std::ofstream utmp("/opt/korvex/var/run/test-utmp", std::ios::binary);
    utmp.write(reinterpret_cast<const char*>(&entry), sizeof entry);
  }
  Configure("utmp_file = /opt/korvex/var/run/test-utmp\n");
  {
    Service before_reboot(root_.dir());
    ASSERT_EQ(
        Field(Ask(socket(), SetPoliciesRequest(StatePolicies(1, 1))), "result"),
        "1");
  }
  // Hard mode waits for its confirmation across a reboot (which empties
  // var/tmp/rm); the plug-in then tells every logged-in user as the service
  // starts.
  boost::filesystem::remove_all("/opt/korvex/var/tmp/rm");
  boost::filesystem::create_directories("/opt/korvex/var/tmp/rm");
  Service service(root_.dir());
  std::string shown;
  ASSERT_TRUE(WaitFor([&] {
    pollfd p{master, POLLIN, 0};
    if (poll(&p, 1, 0) > 0) {
      char buffer[1024];
      const ssize_t n = read(master, buffer, sizeof buffer);
      if (n > 0) shown.append(buffer, static_cast<std::size_t>(n));
    }
    return shown.find("hard mode after reboot") != std::string::npos;
  })) << shown;
  EXPECT_NE(shown.find("ALERT"), std::string::npos);
  EXPECT_TRUE(WaitFor([&] {
    return service.Log().find(
               "notice to logged-in users (1 terminals): ALERT") !=
           std::string::npos;
  })) << service.Log();
  close(slave);
  close(master);
}

TEST_F(ServiceTest, BlockedStationIsRecordedLoggedAndAnnounced) {
  // The rule-control tool fails: turning control on cannot load the rules.
  kxtest::FakeBehaviour failing;
  failing.exit_code = 1;
  kxtest::InstallFakeTool("kxaecctl", failing);
  Service service(root_.dir());
  const int watcher = Subscribe(socket());
  Ask(socket(), SetPoliciesRequest(StatePolicies(1, 0)));
  bool announced = false;
  for (int i = 0; i < 5 && !announced; ++i) {
    const std::string event = kxserv::ReadFrame(watcher, 5000);
    announced = event.find("kind=\"block_station\"") != std::string::npos;
    if (announced) {
      EXPECT_EQ(Field(event, "reason"), "Failed to apply AEC rules");
    }
  }
  close(watcher);
  EXPECT_TRUE(announced);
  EXPECT_EQ(kxtest::ReadFile("/opt/korvex/var/run/station-blocked"),
            "Failed to apply AEC rules\nnow\n");
  const std::string state = Ask(socket(), "<kxserv command=\"state\"/>");
  EXPECT_EQ(Field(state, "station_blocked"), "1");
  EXPECT_EQ(Field(state, "block_reason"), "Failed to apply AEC rules");
  EXPECT_NE(service.Log().find("station blocked: Failed to apply AEC rules"),
            std::string::npos);
}

}  // namespace
}  // namespace servicetest
