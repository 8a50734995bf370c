#include "console_fixture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "json.h"

namespace consoletest {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

// The first line the child writes to `fd`, waiting at most 15 s.
std::string FirstLine(int fd) {
  std::string line;
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 15000) <= 0) return line;
    char c;
    if (read(fd, &c, 1) != 1 || c == '\n') return line;
    line += c;
  }
}

template <class Stream>
HttpReply Exchange(Stream& stream, const std::string& method,
                   const std::string& target, const std::string& body,
                   const std::map<std::string, std::string>& headers) {
  http::request<http::string_body> request;
  request.method_string(method);
  request.target(target);
  request.version(11);
  request.set(http::field::host, "127.0.0.1");
  for (const auto& header : headers) request.set(header.first, header.second);
  request.body() = body;
  request.prepare_payload();
  request.keep_alive(false);
  http::write(stream, request);
  beast::flat_buffer buffer;
  http::response_parser<http::string_body> parser;
  parser.body_limit(1u << 30);
  http::read(stream, buffer, parser);
  const auto& response = parser.get();
  HttpReply reply;
  reply.status = response.result_int();
  for (const auto& field : response) {
    std::string name(field.name_string());
    for (auto& c : name) c = static_cast<char>(std::tolower(c));
    auto& value = reply.headers[name];
    value += (value.empty() ? "" : "\n") + std::string(field.value());
  }
  reply.body = response.body();
  return reply;
}

}  // namespace

Console::Console(const std::string& root, const std::vector<std::string>& args)
    : log_(root + "/var/log/kxconsole.stderr") {
  std::vector<std::string> words = {KX_KXCONSOLE_PATH, "--root", root,
                                    "--port",          "0",      "-v"};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  const int log_fd =
      open(log_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (log_fd < 0) throw std::runtime_error("cannot open " + log_);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(log_fd, STDERR_FILENO);
    const int null = open("/dev/null", O_RDONLY);
    dup2(null, STDIN_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  close(log_fd);
  const std::string line = FirstLine(out[0]);
  close(out[0]);
  const std::string prefix = "kxconsole: listening on ";
  const auto colon = line.rfind(':');
  if (line.compare(0, prefix.size(), prefix) != 0 ||
      colon == std::string::npos) {
    Stop();
    throw std::runtime_error("kxconsole did not start: '" + line + "'\n" +
                             Log());
  }
  url_ = line.substr(prefix.size());
  tls_ = url_.compare(0, 8, "https://") == 0;
  port_ = std::stoi(line.substr(colon + 1));
}

Console::~Console() { Stop(); }

int Console::Stop() {
  if (pid_ <= 0) return -1;
  kill(pid_, SIGTERM);
  int status = 0;
  const bool ended = servicetest::WaitFor(
      [&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, 20);
  if (!ended) {
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
  }
  pid_ = -1;
  return kxtest::ExitCodeOf(status);
}

std::string Console::Log() const {
  std::ifstream in(log_);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string HttpReply::Header(const std::string& name) const {
  const auto it = headers.find(name);
  return it == headers.end() ? "" : it->second;
}

HttpReply Fetch(const Console& console, const std::string& method,
                const std::string& target, const std::string& body,
                const std::map<std::string, std::string>& headers) {
  asio::io_context io;
  tcp::socket socket(io);
  socket.connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"),
                               static_cast<unsigned short>(console.port())));
  if (!console.tls()) return Exchange(socket, method, target, body, headers);
  // The test's certificate is self-signed: the point here is that the
  // console speaks TLS, not who signed its certificate.
  asio::ssl::context context(asio::ssl::context::tls_client);
  context.set_verify_mode(asio::ssl::verify_none);
  beast::ssl_stream<tcp::socket> stream(std::move(socket), context);
  stream.handshake(asio::ssl::stream_base::client);
  return Exchange(stream, method, target, body, headers);
}

std::string LoginToken(const std::string& socket) {
  const std::string reply =
      servicetest::Ask(socket, "<kxserv command=\"console-login\"/>");
  return servicetest::Field(reply, "token");
}

Session LogIn(const Console& console, const std::string& socket) {
  Session session;
  const HttpReply login =
      Fetch(console, "GET", "/login?token=" + LoginToken(socket));
  EXPECT_EQ(login.status, 303) << login.body;
  const std::string cookie = login.Header("set-cookie");
  session.cookie = cookie.substr(0, cookie.find(';'));
  const HttpReply info =
      Fetch(console, "GET", "/api/session", "", {{"Cookie", session.cookie}});
  EXPECT_EQ(info.status, 200) << info.body;
  if (info.status == 200) {
    session.csrf = kxconsole::ParseJson(info.body).GetString("csrf");
  }
  return session;
}

HttpReply Post(const Console& console, const Session& session,
               const std::string& target, const std::string& body) {
  return Fetch(console, "POST", target, body,
               {{"Cookie", session.cookie},
                {"X-CSRF-Token", session.csrf},
                {"Content-Type", "application/json"}});
}

HttpReply Get(const Console& console, const Session& session,
              const std::string& target) {
  return Fetch(console, "GET", target, "", {{"Cookie", session.cookie}});
}

void ConsoleTest::SetUp() {
  servicetest::ServiceTest::SetUp();
  for (const char* page : {"overview", "rules", "lists", "control", "journal",
                           "learning", "welcome"}) {
    kxtest::WriteFile(
        std::string("/opt/korvex/share/kxconsole/") + page + ".html",
        std::string("<!DOCTYPE html><p>page ") + page + "</p>\n");
  }
  kxtest::WriteFile("/opt/korvex/share/kxconsole/app.js", "'use strict';\n");
}

void ConsoleTest::ConfigureConsole(const std::string& text) {
  kxtest::WriteFile("/opt/korvex/etc/kxconsole.conf", text);
}

void ConsoleToolsTest::SetUp() {
  ConsoleTest::SetUp();
  kxtest::CopyFile(KX_KXAECCTL_PATH, "/opt/korvex/bin/kxaecctl");
  kxtest::CopyFile(KX_KXAIDE_PATH, "/opt/korvex/bin/kxaide");
  a_ = "/opt/korvex/var/tmp/res/a";
  kxtest::WriteFile(a_, "resource a\n");
  const auto sealed =
      kxtest::RunProgram({"/opt/korvex/bin/kxaecctl", "reload"});
  ASSERT_EQ(sealed.exit_code, 0) << sealed.err;
}

}  // namespace consoletest
