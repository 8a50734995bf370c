#include "tools_test_util.h"

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
  std::vector<std::string> argv = {program};
  argv.insert(argv.end(), args.begin(), args.end());
  ToolRun run;
  static_cast<kxtest::RunResult&>(run) = kxtest::RunProgram(argv);
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
  return kxtest::RuleJson({name, all_allowed, extended, system, enable, users,
                           groups, resources});
}

std::string JsonEscaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '/') out += '\\';
    out += c;
  }
  return out;
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
