// A kxserv process serving a test's sandboxed root, and a client for it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "kxtest.h"

namespace servicetest {

// Starts the built kxserv with --root `root` and waits (10 s at most) until
// its socket answers. Its standard error (-v: every log line) goes to
// `root`/var/log/kxserv.stderr; Log() reads it. Stopped with SIGTERM (and
// reaped) when the object goes, unless Stop or Kill ran.
class Service {
 public:
  explicit Service(const std::string& root,
                   const std::vector<std::string>& env = {});
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  pid_t pid() const { return pid_; }
  const std::string& socket() const { return socket_; }
  // Sends `signal` and waits; returns the wait status.
  int Stop(int signal = 15);
  std::string Log() const;

 private:
  pid_t pid_ = -1;
  std::string socket_;
  std::string log_;
};

// Runs the built kxserv with `args` (and --plugin) to its end; standard
// output and error together.
struct RunResult {
  int exit_code = -1;
  std::string output;
};
RunResult RunKxserv(const std::vector<std::string>& args);
// Runs `command` with /bin/sh; its standard output.
RunResult RunShell(const std::string& command);

// One request over a new connection; the reply payload.
std::string Ask(const std::string& socket, const std::string& request);

// The text of the first element `name` in an XML reply ("" when none).
std::string Field(const std::string& reply, const std::string& name);

// Polls `condition` every 20 ms for up to `seconds`.
bool WaitFor(const std::function<bool()>& condition, double seconds = 10);

class ServiceTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override;
  // The service's configuration file in this root.
  void Configure(const std::string& text);
  std::string socket() const;
};

}  // namespace servicetest
