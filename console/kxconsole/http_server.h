// The console's HTTP(S) listener on Boost.Beast: a fixed pool of threads
// serves every connection asynchronously. Limits keep one client from
// holding the console: at most kMaxConnections open connections (others get
// 503), 10 s to send a request's header and body, 8 KiB of header, the
// configured body limit (413).
#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/ssl/context.hpp>
#include <functional>
#include <memory>
#include <string>

#include "console_app.h"

namespace kxconsole {

class HttpServer {
 public:
  static constexpr int kMaxConnections = 64;
  static constexpr int kThreads = 4;

  // Binds and listens on address:port (port 0: any free one). With a
  // certificate and key every connection speaks TLS. Throws
  // std::runtime_error saying what failed (address, certificate, key).
  HttpServer(ConsoleApp* app, const kxserv::ConsoleConfig& config);
  ~HttpServer();

  // The port actually bound.
  unsigned short port() const;
  bool tls() const { return tls_ != nullptr; }

  // Serves until SIGTERM or SIGINT (or Stop()); returns the signal number
  // (0 after Stop()).
  int Run();
  void Stop();

  void set_logger(std::function<void(const std::string&)> log) {
    log_ = std::move(log);
  }

 private:
  void Accept();

  ConsoleApp* app_;
  std::size_t max_body_;
  boost::asio::io_context io_;
  boost::asio::ip::tcp::acceptor acceptor_;
  // Installed with the listener, before anyone learns the URL: a SIGTERM
  // right after start must stop the console cleanly, not kill it.
  boost::asio::signal_set signals_;
  std::unique_ptr<boost::asio::ssl::context> tls_;
  std::shared_ptr<std::atomic<int>> open_;
  std::function<void(const std::string&)> log_;
};

}  // namespace kxconsole
