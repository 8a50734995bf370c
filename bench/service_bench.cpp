// The `get` command (all 100 rules, with their resources) over kxserv's
// socket with 1, 8 and 32 concurrent clients, side by side with the same
// request through one-shot kxhost runs, in the same sandboxed root and the
// same run; then the service's resident memory after 100,000 requests.
// Prints requests per second, p50 and p99 latency, the speed-up per request
// over kxhost (goal: at least 20), and VmRSS before and after. Exits 1 when
// the goal is missed. Not a timed test: run by hand.
//   service_bench [--socket-requests M] [--requests N]
//   M: requests per client count, shared by the clients (3200);
//   N: the memory run's count (100000)
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/frame.h"

namespace fs = boost::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

const std::string kGet =
    "<request command=\"get\" rule_resource=\"1\"><rule/></request>";

void WriteRules(const std::string& root, int count) {
  const std::string dir = root + "/etc/aec/rules/";
  fs::create_directories(dir);
  for (int i = 0; i < count; ++i) {
    std::ofstream out(dir + "rule-" + std::to_string(i) + ".conf");
    out << "{\n  \"name\": \"rule-" << i
        << "\",\n  \"all_allowed\": \"false\",\n  \"extended\": \"false\",\n"
           "  \"system\": \"false\",\n  \"enable\": \"true\",\n"
           "  \"user_list\": [\"root\"],\n  \"group_list\": [\"adm\"],\n"
           "  \"resource_list\": [\"/usr/bin/tool"
        << i << "\", \"/usr/lib/libtool" << i << ".so\"]\n}\n";
  }
}

pid_t Spawn(const std::vector<std::string>& words, const std::string& input,
            int* in_fd) {
  std::vector<std::string> copy = words;
  std::vector<char*> argv;
  for (auto& word : copy) argv.push_back(&word[0]);
  argv.push_back(nullptr);
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(pipe_fds[0], STDIN_FILENO);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    close(pipe_fds[1]);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(pipe_fds[0]);
  if (write(pipe_fds[1], input.data(), input.size()) < 0) {
  }
  if (in_fd != nullptr) {
    *in_fd = pipe_fds[1];
  } else {
    close(pipe_fds[1]);
  }
  return pid;
}

long RssKib(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return -1;
}

struct Figures {
  double per_second = 0;
  double p50_us = 0;
  double p99_us = 0;
};

Figures Summarise(std::vector<double> micros, double seconds) {
  std::sort(micros.begin(), micros.end());
  Figures f;
  f.per_second = micros.size() / seconds;
  f.p50_us = micros[micros.size() / 2];
  f.p99_us = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
  return f;
}

// `clients` threads, each with its own connection, `each` requests apiece.
Figures OverSocket(const std::string& socket, int clients, int each,
                   std::atomic<int>* failures) {
  std::vector<std::vector<double>> micros(clients);
  std::vector<std::thread> threads;
  const auto start = Clock::now();
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      const int fd = kxserv::ConnectTo(socket);
      for (int i = 0; i < each; ++i) {
        const auto t0 = Clock::now();
        kxserv::SendFrame(fd, kGet);
        const std::string reply = kxserv::ReadFrame(fd, 60000);
        micros[c].push_back(
            std::chrono::duration<double, std::micro>(Clock::now() - t0)
                .count());
        if (reply.find("rule-99") == std::string::npos) ++*failures;
      }
      close(fd);
    });
  }
  for (auto& t : threads) t.join();
  const double seconds =
      std::chrono::duration<double>(Clock::now() - start).count();
  std::vector<double> all;
  for (auto& m : micros) all.insert(all.end(), m.begin(), m.end());
  return Summarise(all, seconds);
}

Figures OneShot(const std::string& root, int runs) {
  std::vector<double> micros;
  const auto start = Clock::now();
  for (int i = 0; i < runs; ++i) {
    const auto t0 = Clock::now();
    const pid_t pid = Spawn({KX_KXHOST_PATH, "--root", root, "--plugin",
                             KX_PLUGIN_PATH, "exec", "-"},
                            kGet, nullptr);
    int status;
    waitpid(pid, &status, 0);
    micros.push_back(
        std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }
  return Summarise(micros,
                   std::chrono::duration<double>(Clock::now() - start).count());
}

void Print(const char* what, const Figures& f) {
  std::printf("%-26s %10.0f req/s   p50 %9.0f us   p99 %9.0f us\n", what,
              f.per_second, f.p50_us, f.p99_us);
}

// A root as an installation has it: the real tools in bin/, 100 rules of
// two real programs each, sealed, and control on, so that every one-shot
// kxhost run pays what plugin_init costs there (the tool's restart).
bool MakeInstalledRoot(const std::string& root) {
  fs::create_directories(root + "/bin");
  for (const char* tool : {KX_KXAECCTL_PATH, KX_KXAIDE_PATH}) {
    fs::copy_file(tool, root + "/bin/" + fs::path(tool).filename().string(),
                  fs::copy_options::overwrite_existing);
  }
  std::vector<std::string> programs;
  for (const auto& entry : fs::directory_iterator("/usr/bin")) {
    if (fs::is_symlink(entry.path()) || !fs::is_regular_file(entry.path())) {
      continue;
    }
    std::ifstream in(entry.path().string(), std::ios::binary);
    char magic[4] = {};
    in.read(magic, 4);
    if (std::string(magic, 4) == "\x7f" "ELF") {
      programs.push_back(entry.path().string());
    }
  }
  std::sort(programs.begin(), programs.end());
  if (programs.size() < 200) return false;
  const std::string dir = root + "/etc/aec/rules/";
  fs::create_directories(dir);
  for (int i = 0; i < 100; ++i) {
    std::ofstream out(dir + "rule-" + std::to_string(i) + ".conf");
    out << "{\n  \"name\": \"rule-" << i
        << "\",\n  \"all_allowed\": \"false\",\n  \"extended\": \"false\",\n"
           "  \"system\": \"false\",\n  \"enable\": \"true\",\n"
           "  \"user_list\": [\"root\"],\n  \"group_list\": [\"adm\"],\n"
           "  \"resource_list\": [\""
        << programs[2 * i] << "\", \"" << programs[2 * i + 1] << "\"]\n}\n";
  }
  std::ofstream(root + "/control-on.xml")
      << "<policies><policy group=\"aec\" name=\"state\" source=\"local\">"
         "<type>1</type></policy></policies>\n";
  for (const std::vector<std::string>& step :
       {std::vector<std::string>{"seed"},
        std::vector<std::string>{"set-policies", root + "/control-on.xml"}}) {
    std::vector<std::string> words = {KX_KXHOST_PATH, "--root", root,
                                      "--plugin", KX_PLUGIN_PATH};
    words.insert(words.end(), step.begin(), step.end());
    const pid_t pid = Spawn(words, "", nullptr);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return false;
  }
  return true;
}

pid_t StartService(const std::string& root) {
  const std::string socket = kxserv::SocketPath(root);
  const pid_t service = Spawn({KX_KXSERV_PATH, "--foreground", "--root", root,
                               "--plugin", KX_PLUGIN_PATH},
                              "", nullptr);
  for (int i = 0; i < 200; ++i) {
    try {
      close(kxserv::ConnectTo(socket));
      return service;
    } catch (const kxserv::SocketError&) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
  std::fprintf(stderr, "service_bench: kxserv did not start on %s\n",
               root.c_str());
  kill(service, SIGKILL);
  waitpid(service, nullptr, 0);
  return -1;
}

void StopService(pid_t service) {
  kill(service, SIGTERM);
  int status;
  waitpid(service, &status, 0);
}

}  // namespace

int main(int argc, char** argv) {
  long memory_requests = 100000;
  long socket_requests = 3200;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (i + 1 < argc && arg == "--requests") {
      memory_requests = std::atol(argv[++i]);
    } else if (i + 1 < argc && arg == "--socket-requests") {
      socket_requests = std::atol(argv[++i]);
    } else {
      std::fprintf(stderr,
                   "usage: service_bench [--socket-requests M] "
                   "[--requests N]\n");
      return 2;
    }
  }
  if (memory_requests < 8 || socket_requests < 32) {
    std::fprintf(stderr, "service_bench: counts too small\n");
    return 2;
  }
  setvbuf(stdout, nullptr, _IOLBF, 0);
  char pattern[] = "/tmp/kx-service-bench.XXXXXX";
  if (mkdtemp(pattern) == nullptr) return 2;
  const std::string root = pattern;
  WriteRules(root, 100);
  const std::string socket = kxserv::SocketPath(root);
  const pid_t service = StartService(root);
  if (service < 0) return 2;

  std::atomic<int> failures{0};
  std::printf("get of 100 rules with resources, root %s (control off)\n",
              root.c_str());
  OverSocket(socket, 1, 20, &failures);  // warm-up
  Figures one;
  for (int clients : {1, 8, 32}) {
    const int each = static_cast<int>(socket_requests / clients);
    const Figures f = OverSocket(socket, clients, each, &failures);
    if (clients == 1) one = f;
    const std::string label = "kxserv, " + std::to_string(clients) + " client" +
                              (clients == 1 ? "" : "s");
    Print(label.c_str(), f);
  }
  const Figures shot = OneShot(root, 20);
  Print("kxhost, one run each", shot);
  std::printf("speed-up per request (p50, 1 client): %.1fx\n",
              shot.p50_us / one.p50_us);

  // The same request where plugin_init costs what it costs on a host with
  // control on; the goal is judged here.
  char installed_pattern[] = "/tmp/kx-service-bench-on.XXXXXX";
  if (mkdtemp(installed_pattern) == nullptr) return 2;
  const std::string installed = installed_pattern;
  if (!MakeInstalledRoot(installed)) {
    std::fprintf(stderr, "service_bench: cannot make the installed root\n");
    return 2;
  }
  const pid_t installed_service = StartService(installed);
  if (installed_service < 0) return 2;
  std::printf("get of 100 rules with resources, root %s (control on)\n",
              installed.c_str());
  OverSocket(kxserv::SocketPath(installed), 1, 20, &failures);  // warm-up
  const Figures on_one = OverSocket(kxserv::SocketPath(installed), 1,
                                    static_cast<int>(socket_requests / 4),
                                    &failures);
  Print("kxserv, 1 client", on_one);
  StopService(installed_service);
  const Figures on_shot = OneShot(installed, 20);
  Print("kxhost, one run each", on_shot);
  const double speedup = on_shot.p50_us / on_one.p50_us;
  std::printf("speed-up per request (p50, 1 client): %.1fx (goal >= 20x)\n",
              speedup);
  fs::remove_all(installed);

  const long rss_before = RssKib(service);
  const int clients = 8;
  const long each = memory_requests / clients;
  OverSocket(socket, clients, static_cast<int>(each), &failures);
  const long rss_after = RssKib(service);
  std::printf(
      "kxserv VmRSS: %ld KiB before, %ld KiB after %ld more requests "
      "(%+ld KiB)\n",
      rss_before, rss_after, each * clients, rss_after - rss_before);
  if (failures.load() != 0) {
    std::printf("%d replies did not list the rules\n", failures.load());
  }

  StopService(service);
  fs::remove_all(root);
  return (speedup >= 20 && failures.load() == 0) ? 0 : 1;
}
