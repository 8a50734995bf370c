// A kxconsole child process serving a test's sandboxed root, and a small
// HTTP(S) client for it.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "service_fixture.h"

namespace consoletest {

// Starts the built kxconsole with --root `root` --port 0 -v and `args`,
// and reads the URL it prints. Its standard error goes to
// `root`/var/log/kxconsole.stderr. Stopped with SIGTERM when the object goes.
class Console {
 public:
  explicit Console(const std::string& root,
                   const std::vector<std::string>& args = {});
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  int port() const { return port_; }
  bool tls() const { return tls_; }
  const std::string& url() const { return url_; }
  // Sends SIGTERM and waits; the exit code (128 + N for signal N).
  int Stop();
  std::string Log() const;

 private:
  pid_t pid_ = -1;
  int port_ = 0;
  bool tls_ = false;
  std::string url_;
  std::string log_;
};

struct HttpReply {
  int status = 0;
  // Header names in lower case; repeated headers joined with "\n".
  std::map<std::string, std::string> headers;
  std::string body;
  std::string Header(const std::string& name) const;
};

// One request on a new connection. `headers` are added as given.
HttpReply Fetch(const Console& console, const std::string& method,
                const std::string& target, const std::string& body = "",
                const std::map<std::string, std::string>& headers = {});

// A session: the cookie header value and the CSRF token.
struct Session {
  std::string cookie;  // "kxsession=..."
  std::string csrf;
};

// A fresh one-time token from the service over its socket.
std::string LoginToken(const std::string& socket);
// Logs in through /login with a fresh token; fails the test when it cannot.
Session LogIn(const Console& console, const std::string& socket);
// A POST with the session's cookie and CSRF token.
HttpReply Post(const Console& console, const Session& session,
               const std::string& target, const std::string& body);
HttpReply Get(const Console& console, const Session& session,
              const std::string& target);

// ServiceTest with page assets of its own in ROOT/share/kxconsole (each
// page holds "page NAME"), so that page routing is tested apart from the
// committed pages.
class ConsoleTest : public servicetest::ServiceTest {
 protected:
  void SetUp() override;
  // Writes ROOT/etc/kxconsole.conf.
  void ConfigureConsole(const std::string& text);
};

// ConsoleTest with the built kxaecctl and kxaide in ROOT/bin instead of the
// fake tool, the empty configuration sealed, and a resource file `a_`.
class ConsoleToolsTest : public ConsoleTest {
 protected:
  void SetUp() override;
  std::string a_;
};

}  // namespace consoletest
