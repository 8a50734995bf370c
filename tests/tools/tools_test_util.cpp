#include "tools_test_util.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cerrno>
#include <sstream>
#include <stdexcept>

namespace toolstest {
namespace {

namespace fs = boost::filesystem;
namespace pt = boost::property_tree;

pt::ptree List(const std::vector<std::string>& items) {
  pt::ptree list;
  for (const auto& item : items) list.push_back({"", pt::ptree(item)});
  return list;
}

std::string Json(const pt::ptree& tree) {
  std::ostringstream text;
  pt::write_json(text, tree, true);
  return text.str();
}

void Install(const std::string& from, const std::string& to) {
  fs::create_directories(fs::path(to).parent_path());
  fs::copy_file(from, to, fs::copy_options::overwrite_existing);
  fs::permissions(to, fs::perms(0755));
}

}  // namespace

std::vector<std::string> ToolRun::OutLines() const {
  std::vector<std::string> lines;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

ToolRun RunTool(const std::string& program,
                const std::vector<std::string>& args) {
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    throw std::runtime_error("RunTool: pipe failed");
  }
  std::vector<std::string> words = {program};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("RunTool: fork failed");
  if (pid == 0) {
    const int null = open("/dev/null", O_RDONLY);
    dup2(null, STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  ToolRun run;
  int open_fds[2] = {out[0], err[0]};
  while (open_fds[0] >= 0 || open_fds[1] >= 0) {
    std::vector<pollfd> fds;
    for (int fd : open_fds) {
      if (fd >= 0) fds.push_back({fd, POLLIN, 0});
    }
    if (poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (const auto& p : fds) {
      if (p.revents == 0) continue;
      char buffer[4096];
      const ssize_t n = read(p.fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      const int slot = p.fd == open_fds[0] ? 0 : 1;
      if (n <= 0) {
        close(p.fd);
        open_fds[slot] = -1;
        continue;
      }
      (slot == 0 ? run.out : run.err).append(buffer, static_cast<size_t>(n));
    }
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) throw std::runtime_error("RunTool: waitpid failed");
  }
  run.exit_code =
      WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return run;
}

void InstallTools() {
  Install(KX_KXAECCTL_PATH, kKxaecctl);
  Install(KX_KXAIDE_PATH, kKxaide);
}

std::string Resource(const std::string& name) {
  const std::string path = kResourceDir + name;
  kxtest::WriteFile(path, "resource " + name + "\n");
  return path;
}

std::string RulePath(const std::string& name) {
  return kRulesDir + name + ".conf";
}

std::string RuleJson(const std::string& name, bool all_allowed, bool extended,
                     bool system, bool enable,
                     const std::vector<std::string>& users,
                     const std::vector<std::string>& groups,
                     const std::vector<std::string>& resources) {
  auto flag = [](bool value) { return value ? "true" : "false"; };
  pt::ptree tree;
  tree.put("name", name);
  tree.put("all_allowed", flag(all_allowed));
  tree.put("extended", flag(extended));
  tree.put("system", flag(system));
  tree.put("enable", flag(enable));
  tree.add_child("user_list", List(users));
  tree.add_child("group_list", List(groups));
  tree.add_child("resource_list", List(resources));
  return Json(tree);
}

std::string WhitelistJson(const std::vector<std::string>& users,
                          const std::vector<std::string>& groups) {
  pt::ptree tree;
  tree.add_child("user_list", List(users));
  tree.add_child("group_list", List(groups));
  return Json(tree);
}

std::string JsonEscaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '/') out += '\\';
    out += c;
  }
  return out;
}

std::set<std::string> RuleFiles() {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(kRulesDir)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

std::vector<std::string> Lines(const std::string& path) {
  std::vector<std::string> lines;
  std::istringstream in(kxtest::ReadFile(path));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

void SetWhitelistSource(const std::string& source) {
  kxtest::WriteFile(kSources,
                    "{\n    \"rules\": \"local\",\n"
                    "    \"exceptions\": \"local\",\n"
                    "    \"whitelist\": \"" +
                        source + "\"\n}\n");
}

void ToolsTest::SetUp() {
  InstallTools();
  fs::create_directories(kResourceDir);
}

void ToolsTest::Seal() {
  const ToolRun run = Ctl({"reload"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
}

}  // namespace toolstest
