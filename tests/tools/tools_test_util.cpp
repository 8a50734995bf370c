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
