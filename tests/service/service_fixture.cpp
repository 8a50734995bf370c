#include "service_fixture.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "common/frame.h"
#include "lib/xml_document.h"

namespace servicetest {

Service::Service(const std::string& root, const std::vector<std::string>& env)
    : socket_(kxserv::SocketPath(root)), log_(root + "/var/log/kxserv.stderr") {
  std::vector<std::string> words = {KX_KXSERV_PATH, "--foreground", "-v",
                                    "--root",       root,           "--plugin",
                                    KX_PLUGIN_PATH};
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);
  const int log_fd =
      open(log_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (log_fd < 0) throw std::runtime_error("cannot open " + log_);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    dup2(log_fd, STDERR_FILENO);
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
    for (const auto& assignment : env) putenv(strdup(assignment.c_str()));
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(log_fd);
  const bool up = WaitFor([this] {
    int status;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      throw std::runtime_error("kxserv exited at start:\n" + Log());
    }
    try {
      close(kxserv::ConnectTo(socket_));
      return true;
    } catch (const kxserv::SocketError&) {
      return false;
    }
  });
  if (!up) {
    Stop(SIGKILL);
    throw std::runtime_error("kxserv did not start serving:\n" + Log());
  }
}

Service::~Service() {
  if (pid_ > 0) Stop(SIGTERM);
}

int Service::Stop(int signal) {
  if (pid_ <= 0) return -1;
  kill(pid_, signal);
  int status = 0;
  const bool ended =
      WaitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, 20);
  if (!ended) {
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
  }
  pid_ = -1;
  return status;
}

std::string Service::Log() const {
  std::ifstream in(log_);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

RunResult RunShell(const std::string& command) {
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) throw std::runtime_error("popen failed");
  RunResult result;
  char buffer[4096];
  std::size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) {
    result.output.append(buffer, n);
  }
  const int status = pclose(pipe);
  result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

RunResult RunKxserv(const std::vector<std::string>& args) {
  // Arguments are test-controlled paths and options without quotes.
  std::string command =
      std::string(KX_KXSERV_PATH) + " --plugin " + KX_PLUGIN_PATH;
  for (const auto& arg : args) command += " '" + arg + "'";
  return RunShell(command + " 2>&1 </dev/null");
}

std::string Ask(const std::string& socket, const std::string& request) {
  const int fd = kxserv::ConnectTo(socket);
  try {
    kxserv::SendFrame(fd, request);
    std::string reply = kxserv::ReadFrame(fd, 60000);
    close(fd);
    return reply;
  } catch (...) {
    close(fd);
    throw;
  }
}

namespace {
bool FindField(const boost::property_tree::ptree& tree, const std::string& name,
               std::string* value) {
  for (const auto& child : tree) {
    if (child.first == name) {
      *value = child.second.data();
      return true;
    }
    if (!child.first.empty() && child.first[0] != '<' &&
        FindField(child.second, name, value)) {
      return true;
    }
  }
  return false;
}
}  // namespace

std::string Field(const std::string& reply, const std::string& name) {
  std::string value;
  FindField(kxhost::ParseXml(reply)->Tree(), name, &value);
  return value;
}

bool WaitFor(const std::function<bool()>& condition, double seconds) {
  const auto deadline =
      std::chrono::steady_clock::now() +
      std::chrono::milliseconds(static_cast<int>(seconds * 1000));
  for (;;) {
    if (condition()) return true;
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

void ServiceTest::SetUp() { kxtest::InstallFakeTool("kxaecctl", {}); }

void ServiceTest::Configure(const std::string& text) {
  kxtest::WriteFile("/opt/korvex/etc/kxserv.conf", text);
}

std::string ServiceTest::socket() const {
  return kxserv::SocketPath(root_.dir());
}

}  // namespace servicetest
