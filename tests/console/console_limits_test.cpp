// The listener's limits: open connections, header size, keep-alive.
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <memory>
#include <string>
#include <vector>

#include "console_fixture.h"
#include "json.h"

namespace consoletest {
namespace {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

// Sends `request` raw on a new connection and reads until the console
// closes it.
std::string Raw(const Console& console, const std::string& request) {
  asio::io_context io;
  tcp::socket socket(io);
  socket.connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"),
                               static_cast<unsigned short>(console.port())));
  asio::write(socket, asio::buffer(request));
  std::string reply;
  boost::system::error_code ec;
  asio::read(socket, asio::dynamic_buffer(reply), ec);
  return reply;
}

TEST_F(ConsoleTest, ConnectionsAboveTheCapAreAnsweredBusy) {
  Console console(root_.dir());
  asio::io_context io;
  std::vector<std::unique_ptr<tcp::socket>> idle;
  for (int i = 0; i < 64; ++i) {
    idle.push_back(std::make_unique<tcp::socket>(io));
    idle.back()->connect(
        tcp::endpoint(asio::ip::make_address("127.0.0.1"),
                      static_cast<unsigned short>(console.port())));
  }
  // The console counts a connection once it has accepted it.
  HttpReply busy;
  ASSERT_TRUE(servicetest::WaitFor([&] {
    busy = Fetch(console, "GET", "/welcome");
    return busy.status == 503;
  }));
  EXPECT_EQ(kxconsole::ParseJson(busy.body).GetString("error"), "busy");
  idle.clear();
  EXPECT_TRUE(servicetest::WaitFor(
      [&] { return Fetch(console, "GET", "/welcome").status == 200; }));
}

TEST_F(ConsoleTest, AHeaderAbove8KiBIsRefused) {
  Console console(root_.dir());
  const std::string reply =
      Raw(console, "GET /welcome HTTP/1.1\r\nHost: x\r\nX-Long: " +
                       std::string(9000, 'a') + "\r\n\r\n");
  EXPECT_EQ(reply.compare(0, 12, "HTTP/1.1 431"), 0) << reply.substr(0, 200);
  EXPECT_EQ(Fetch(console, "GET", "/welcome").status, 200);
}

TEST_F(ConsoleTest, KeepAliveServesSeveralRequestsOnOneConnection) {
  Console console(root_.dir());
  const std::string reply = Raw(
      console,
      "GET /welcome HTTP/1.1\r\nHost: x\r\n\r\n"
      "GET /assets/app.js HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(reply.compare(0, 12, "HTTP/1.1 200"), 0) << reply;
  EXPECT_NE(reply.find("page welcome"), std::string::npos);
  EXPECT_NE(reply.find("'use strict';"), std::string::npos) << reply;
}

TEST_F(ConsoleTest, GarbageInsteadOfHttpIsABadRequest) {
  Console console(root_.dir());
  const std::string reply = Raw(console, "\x01\x02 nonsense\r\n\r\n");
  EXPECT_EQ(reply.compare(0, 12, "HTTP/1.1 400"), 0) << reply;
  EXPECT_EQ(Fetch(console, "GET", "/welcome").status, 200);
}

}  // namespace
}  // namespace consoletest
