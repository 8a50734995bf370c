// The management socket: framing, limits, timeouts, bad input, many clients.
#include <grp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "common/frame.h"
#include "service_fixture.h"

namespace servicetest {
namespace {

using kxserv::ConnectTo;
using kxserv::FrameHeader;
using kxserv::ReadFrame;
using kxserv::SendFrame;

const char kInfo[] = "<kxserv command=\"info\"/>";

void SendRaw(int fd, const std::string& bytes) {
  ASSERT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(bytes.size()));
}

// True when the peer closed the connection (read gives end of stream).
bool Closed(int fd) {
  try {
    ReadFrame(fd, 5000);
    return false;
  } catch (const kxserv::SocketError& e) {
    return std::string(e.what()).find("closed") != std::string::npos;
  }
}

TEST_F(ServiceTest, InfoNamesThePlugin) {
  Service service(root_.dir());
  const std::string reply = Ask(socket(), kInfo);
  EXPECT_EQ(Field(reply, "result"), "1");
  EXPECT_EQ(Field(reply, "name"), "aec");
  EXPECT_EQ(Field(reply, "description"),
            "Application execution control plugin");
}

TEST_F(ServiceTest, UnknownPluginCommandIsAnsweredAsUnanswered) {
  Service service(root_.dir());
  const std::string reply =
      Ask(socket(), "<request command=\"no_such_command\"/>");
  EXPECT_EQ(Field(reply, "result"), "0");
  EXPECT_EQ(Field(reply, "error_code"), "unanswered");
  EXPECT_NE(Field(reply, "error_desc").find("no_such_command"),
            std::string::npos);
  // The service goes on.
  EXPECT_EQ(Field(Ask(socket(), kInfo), "result"), "1");
}

TEST_F(ServiceTest, UnknownServiceCommandGetsAnError) {
  Service service(root_.dir());
  const std::string reply = Ask(socket(), "<kxserv command=\"reboot\"/>");
  EXPECT_EQ(Field(reply, "error_code"), "unknown_command");
  EXPECT_NE(Field(reply, "error_desc").find("reboot"), std::string::npos);
}

TEST_F(ServiceTest, GarbageFrameGetsAnErrorAndTheConnectionGoesOn) {
  Service service(root_.dir());
  const int fd = ConnectTo(socket());
  SendFrame(fd, std::string("\x01\x02<<not xml", 11));
  const std::string reply = ReadFrame(fd, 5000);
  EXPECT_EQ(Field(reply, "error_code"), "bad_document");
  // The same connection still serves the next request.
  SendFrame(fd, kInfo);
  EXPECT_EQ(Field(ReadFrame(fd, 5000), "name"), "aec");
  close(fd);
}

TEST_F(ServiceTest, OversizedFrameIsRefusedAndTheServiceGoesOn) {
  Configure("max_request = 4096\n");
  Service service(root_.dir());
  const int fd = ConnectTo(socket());
  // Only the header: the service must refuse from the length alone.
  SendRaw(fd, FrameHeader(4097));
  const std::string reply = ReadFrame(fd, 5000);
  EXPECT_EQ(Field(reply, "error_code"), "too_large");
  EXPECT_NE(Field(reply, "error_desc").find("4096"), std::string::npos);
  EXPECT_TRUE(Closed(fd));
  close(fd);
  // A request at the limit is served.
  std::string padded = "<kxserv command=\"info\">";
  padded += std::string(4096 - padded.size() - 9, ' ') + "</kxserv>";
  ASSERT_EQ(padded.size(), 4096u);
  EXPECT_EQ(Field(Ask(socket(), padded), "name"), "aec");
}

TEST_F(ServiceTest, DefaultRequestLimitIsOneMebibyte) {
  Service service(root_.dir());
  const int fd = ConnectTo(socket());
  SendRaw(fd, FrameHeader((1u << 20) + 1));
  EXPECT_EQ(Field(ReadFrame(fd, 5000), "error_code"), "too_large");
  close(fd);
}

TEST_F(ServiceTest, TruncatedFrameIsDroppedAndLogged) {
  Service service(root_.dir());
  const int fd = ConnectTo(socket());
  SendRaw(fd, FrameHeader(100) + "<kxserv command=");
  shutdown(fd, SHUT_WR);
  EXPECT_TRUE(Closed(fd));
  close(fd);
  EXPECT_TRUE(WaitFor([&] {
    return service.Log().find("connection ended inside a frame") !=
           std::string::npos;
  }));
  EXPECT_EQ(Field(Ask(socket(), kInfo), "result"), "1");
}

TEST_F(ServiceTest, SilentClientTimesOutWithAReason) {
  Configure("read_timeout_ms = 300\n");
  Service service(root_.dir());
  const int fd = ConnectTo(socket());
  const auto start = std::chrono::steady_clock::now();
  const std::string reply = ReadFrame(fd, 5000);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(Field(reply, "error_code"), "timeout");
  EXPECT_GE(waited, std::chrono::milliseconds(250));
  EXPECT_TRUE(Closed(fd));
  close(fd);
}

TEST_F(ServiceTest, TimeSpentOnTheRequestDoesNotCountAsSilence) {
  Configure("read_timeout_ms = 300\n");
  kxtest::WriteFile("/opt/korvex/bin/kxaecctl", "#!/bin/sh\nsleep 1\nexit 0\n",
                    0755);
  Service service(root_.dir());
  const int fd = ConnectTo(socket());
  SendFrame(fd,
            "<kxserv command=\"set-policies\"><policies><policy "
            "group=\"aec\" name=\"state\" source=\"local\"><type>1</type>"
            "</policy></policies></kxserv>");
  EXPECT_EQ(Field(ReadFrame(fd, 10000), "result"), "1");
  SendFrame(fd, kInfo);
  EXPECT_EQ(Field(ReadFrame(fd, 5000), "name"), "aec");
  close(fd);
}

TEST_F(ServiceTest, SilentClientDoesNotStallOthers) {
  Service service(root_.dir());
  // Half a frame, then nothing.
  const int silent = ConnectTo(socket());
  SendRaw(silent, FrameHeader(50) + "<kx");
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(Field(Ask(socket(), kInfo), "name"), "aec");
  }
  close(silent);
}

TEST_F(ServiceTest, ClientLimitTurnsTheNextOneAway) {
  Configure("max_clients = 2\n");
  Service service(root_.dir());
  const int first = ConnectTo(socket());
  const int second = ConnectTo(socket());
  const int third = ConnectTo(socket());
  EXPECT_EQ(Field(ReadFrame(third, 5000), "error_code"), "busy");
  close(third);
  SendFrame(first, kInfo);
  EXPECT_EQ(Field(ReadFrame(first, 5000), "name"), "aec");
  close(first);
  close(second);
}

TEST_F(ServiceTest, ManyClientsGetTheirOwnRepliesInOrder) {
  Service service(root_.dir());
  constexpr int kClients = 32;
  constexpr int kRequests = 200;
  std::atomic<int> mismatches{0}, answered{0};
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([&, c] {
      const int fd = ConnectTo(socket());
      for (int i = 0; i < kRequests; ++i) {
        // The rule name comes back in the reply's error text: each reply
        // shows which request it answers.
        const std::string name =
            "client" + std::to_string(c) + "-request" + std::to_string(i);
        SendFrame(
            fd, "<request command=\"get\"><rule>" + name + "</rule></request>");
        const std::string reply = ReadFrame(fd, 60000);
        if (Field(reply, "error_desc") != "Rule does not exists: " + name) {
          ++mismatches;
        }
        ++answered;
      }
      close(fd);
    });
  }
  for (auto& client : clients) client.join();
  EXPECT_EQ(answered.load(), kClients * kRequests);
  EXPECT_EQ(mismatches.load(), 0);
}

TEST_F(ServiceTest, ClientKilledMidRequestLeavesTheServiceServing) {
  Service service(root_.dir());
  const std::string name = "never-read";
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const int fd = ConnectTo(socket());
    // Many requests sent, no reply read: the child dies with them pending.
    for (int i = 0; i < 200; ++i) {
      SendFrame(fd,
                "<request command=\"get\"><rule>" + name + "</rule></request>");
    }
    SendRaw(fd, FrameHeader(1000) + "<request");
    pause();
    _exit(0);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  kill(child, SIGKILL);
  int status;
  waitpid(child, &status, 0);
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(Field(Ask(socket(), kInfo), "name"), "aec");
  }
  EXPECT_EQ(waitpid(service.pid(), &status, WNOHANG), 0) << "kxserv died";
}

TEST_F(ServiceTest, PeerOutsideTheGroupIsRefusedAndLogged) {
  Service service(root_.dir());
  // The root directory must be passable for the unprivileged peer; the
  // socket itself is open to all, the peer check is what refuses.
  ASSERT_EQ(chmod(root_.dir().c_str(), 0755), 0);
  int pipe_fds[2];
  ASSERT_EQ(pipe(pipe_fds), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(pipe_fds[0]);
    std::string reply;
    if (setgroups(0, nullptr) == 0 && setgid(65534) == 0 &&
        setuid(65534) == 0) {
      try {
        const int fd = ConnectTo(socket());
        // The refusal may come before the request is taken; it must be
        // readable either way.
        try {
          SendFrame(fd, kInfo);
        } catch (const kxserv::SocketError&) {
        }
        reply = ReadFrame(fd, 5000);
      } catch (const std::exception& e) {
        reply = std::string("error: ") + e.what();
      }
    } else {
      reply = "error: cannot drop privileges";
    }
    if (write(pipe_fds[1], reply.data(), reply.size()) < 0) _exit(1);
    _exit(0);
  }
  close(pipe_fds[1]);
  std::string reply;
  char buffer[4096];
  ssize_t n;
  while ((n = read(pipe_fds[0], buffer, sizeof buffer)) > 0) {
    reply.append(buffer, static_cast<std::size_t>(n));
  }
  close(pipe_fds[0]);
  int status;
  waitpid(child, &status, 0);
  ASSERT_EQ(reply.rfind("error:", 0), std::string::npos) << reply;
  EXPECT_EQ(Field(reply, "error_code"), "refused");
  EXPECT_NE(Field(reply, "error_desc").find("uid 65534"), std::string::npos);
  EXPECT_TRUE(WaitFor([&] {
    return service.Log().find("refused a connection from uid 65534") !=
           std::string::npos;
  }));
}

}  // namespace
}  // namespace servicetest
