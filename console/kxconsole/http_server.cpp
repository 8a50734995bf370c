#include "http_server.h"

#include <boost/asio/strand.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <chrono>
#include <csignal>
#include <optional>
#include <thread>
#include <vector>

namespace kxconsole {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
using tcp = asio::ip::tcp;

constexpr auto kReadTimeout = std::chrono::seconds(10);
constexpr auto kWriteTimeout = std::chrono::seconds(30);
constexpr std::uint32_t kHeaderLimit = 8 * 1024;

// One connection: reads requests one after the other (keep-alive), answers
// each through the app, and closes on an error, a timeout or a request that
// breaks a limit. `Stream` is a tcp_stream or an ssl_stream over one.
template <class Stream>
class Connection : public std::enable_shared_from_this<Connection<Stream>> {
 public:
  template <class... Args>
  Connection(ConsoleApp* app, std::size_t max_body, bool tls,
             std::shared_ptr<std::atomic<int>> open, Args&&... args)
      : stream_(std::forward<Args>(args)...),
        app_(app),
        max_body_(max_body),
        tls_(tls),
        open_(std::move(open)) {}
  ~Connection() { --*open_; }

  void Start() {
    if constexpr (std::is_same<Stream, beast::tcp_stream>::value) {
      Read();
    } else {
      auto self = this->shared_from_this();
      beast::get_lowest_layer(stream_).expires_after(kReadTimeout);
      stream_.async_handshake(asio::ssl::stream_base::server,
                              [self](beast::error_code ec) {
                                if (!ec) self->Read();
                              });
    }
  }

  // Answers `response` and closes: for a connection that must not be read
  // any further.
  void Refuse(Response response) {
    response.keep_alive(false);
    Write(std::move(response));
  }

 private:
  void Read() {
    parser_.emplace();
    parser_->header_limit(kHeaderLimit);
    parser_->body_limit(max_body_);
    beast::get_lowest_layer(stream_).expires_after(kReadTimeout);
    auto self = this->shared_from_this();
    http::async_read(
        stream_, buffer_, *parser_,
        [self](beast::error_code ec, std::size_t) { self->OnRead(ec); });
  }

  void OnRead(beast::error_code ec) {
    if (ec == http::error::body_limit) {
      Refuse(ApiError(http::status::payload_too_large, "too_large",
                      "The request body is larger than " +
                          std::to_string(max_body_) + " bytes."));
      return;
    }
    if (ec == http::error::header_limit) {
      Refuse(ApiError(http::status::request_header_fields_too_large,
                      "too_large", "The request header is too large."));
      return;
    }
    if (ec == http::error::end_of_stream || ec == beast::error::timeout ||
        ec == asio::error::operation_aborted ||
        ec == asio::error::connection_reset ||
        ec == asio::ssl::error::stream_truncated) {
      Close();
      return;
    }
    if (ec) {
      Refuse(ApiError(http::status::bad_request, "bad_request",
                      "The request is not well-formed HTTP."));
      return;
    }
    Write(app_->Handle(parser_->get(), tls_));
  }

  void Write(Response response) {
    response_ = std::make_shared<Response>(std::move(response));
    beast::get_lowest_layer(stream_).expires_after(kWriteTimeout);
    auto self = this->shared_from_this();
    http::async_write(stream_, *response_,
                      [self](beast::error_code ec, std::size_t) {
                        const bool again = !ec && self->response_->keep_alive();
                        self->response_.reset();
                        if (again) {
                          self->Read();
                        } else {
                          self->Close();
                        }
                      });
  }

  // Shuts our side, then drops what the client still sends (a refused
  // body) for a moment: closing with unread data would reset the connection
  // and could destroy the answer before the client reads it.
  void Close() {
    if constexpr (std::is_same<Stream, beast::tcp_stream>::value) {
      beast::error_code ignored;
      stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
      stream_.expires_after(std::chrono::seconds(1));
      Drain();
    } else {
      beast::get_lowest_layer(stream_).expires_after(std::chrono::seconds(2));
      auto self = this->shared_from_this();
      stream_.async_shutdown([self](beast::error_code) {});
    }
  }

  void Drain() {
    auto self = this->shared_from_this();
    stream_.async_read_some(asio::buffer(drain_),
                            [self](beast::error_code ec, std::size_t) {
                              if (!ec) self->Drain();
                            });
  }

  Stream stream_;
  char drain_[4096];
  ConsoleApp* app_;
  std::size_t max_body_;
  bool tls_;
  std::shared_ptr<std::atomic<int>> open_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  std::shared_ptr<Response> response_;
};

}  // namespace

HttpServer::HttpServer(ConsoleApp* app, const kxserv::ConsoleConfig& config)
    : app_(app),
      max_body_(config.max_body),
      io_(kThreads),
      acceptor_(io_),
      signals_(io_, SIGTERM, SIGINT),
      open_(std::make_shared<std::atomic<int>>(0)) {
  if (config.tls()) {
    tls_ = std::make_unique<asio::ssl::context>(asio::ssl::context::tls_server);
    tls_->set_options(
        asio::ssl::context::default_workarounds | asio::ssl::context::no_sslv2 |
        asio::ssl::context::no_sslv3 | asio::ssl::context::no_tlsv1 |
        asio::ssl::context::no_tlsv1_1);
    beast::error_code ec;
    tls_->use_certificate_chain_file(config.certificate, ec);
    if (ec) {
      throw std::runtime_error("cannot use the certificate " +
                               config.certificate + ": " + ec.message());
    }
    tls_->use_private_key_file(config.private_key, asio::ssl::context::pem, ec);
    if (ec) {
      throw std::runtime_error("cannot use the private key " +
                               config.private_key + ": " + ec.message());
    }
  }
  beast::error_code ec;
  const auto address = asio::ip::make_address(config.listen_address, ec);
  if (ec) {
    throw std::runtime_error("listen_address " + config.listen_address +
                             " is not an IP address");
  }
  const tcp::endpoint endpoint(address,
                               static_cast<unsigned short>(config.port));
  acceptor_.open(endpoint.protocol(), ec);
  if (!ec) acceptor_.set_option(asio::socket_base::reuse_address(true), ec);
  if (!ec) acceptor_.bind(endpoint, ec);
  if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    throw std::runtime_error("cannot listen on " + config.listen_address +
                             " port " + std::to_string(config.port) + ": " +
                             ec.message());
  }
}

HttpServer::~HttpServer() = default;

unsigned short HttpServer::port() const {
  return acceptor_.local_endpoint().port();
}

void HttpServer::Accept() {
  acceptor_.async_accept(asio::make_strand(io_), [this](beast::error_code ec,
                                                        tcp::socket socket) {
    if (ec == asio::error::operation_aborted) return;
    if (!ec) {
      const bool full = ++*open_ > kMaxConnections;
      auto busy = [&] {
        return ApiError(http::status::service_unavailable, "busy",
                        "Too many open connections; try again.");
      };
      if (tls_) {
        auto connection =
            std::make_shared<Connection<beast::ssl_stream<beast::tcp_stream>>>(
                app_, max_body_, true, open_, std::move(socket), *tls_);
        if (full) {
          // A TLS client cannot read a plain answer: just close.
          if (log_) log_("refused a connection: too many open");
        } else {
          connection->Start();
        }
      } else {
        auto connection = std::make_shared<Connection<beast::tcp_stream>>(
            app_, max_body_, false, open_, std::move(socket));
        if (full) {
          if (log_) log_("refused a connection: too many open");
          connection->Refuse(busy());
        } else {
          connection->Start();
        }
      }
    } else if (log_) {
      log_("accept failed: " + ec.message());
    }
    Accept();
  });
}

int HttpServer::Run() {
  int stopped_by = 0;
  signals_.async_wait([&](beast::error_code ec, int signal) {
    if (!ec) stopped_by = signal;
    io_.stop();
  });
  Accept();
  std::vector<std::thread> threads;
  for (int i = 1; i < kThreads; ++i)
    threads.emplace_back([this] { io_.run(); });
  io_.run();
  for (auto& thread : threads) thread.join();
  return stopped_by;
}

void HttpServer::Stop() { io_.stop(); }

}  // namespace kxconsole
