#include "rules_test_util.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "host/plugin_api.h"
#include "kxtest.h"
#include "lib/xml_document.h"

namespace pt = boost::property_tree;

namespace rulestest {

const char* const kRulesDir = "/opt/korvex/etc/aec/rules/";
const char* const kConfigDir = "/opt/korvex/etc/aec/";

namespace {

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

}  // namespace

std::string RulesImportJson(const std::vector<RuleSpec>& rules,
                            const std::string& source) {
  pt::ptree value;
  for (const auto& rule : rules) value.push_back({"", RuleTree(rule)});
  pt::ptree policy;
  policy.put("group", "aec");
  policy.put("name", "rules");
  policy.put("source", source);
  policy.add_child("value", value);
  pt::ptree policies;
  policies.push_back({"", policy});
  pt::ptree document;
  document.add_child("policies", policies);
  std::ostringstream json;
  pt::write_json(json, document);
  return json.str();
}

void WriteRuleFile(const RuleSpec& rule, const std::string& file_name) {
  kxtest::WriteFile(std::string(kRulesDir) +
                        (file_name.empty() ? rule.name + ".conf" : file_name),
                    RuleJson(rule));
}

pt::ptree Exec(const std::string& request, int* outcome) {
  parsed_xml_data_t data;
  data.xml = kxhost::ParseXml(request);
  data.reply = XMLParserBoost::CreateEmptyXML();
  plugin_exec(&data);
  if (outcome != nullptr) *outcome = data.outcome;
  return kxhost::TreeOf(*data.reply);
}

int OpenDescriptorCount() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) Fail("opendir /proc/self/fd");
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

bool HasChildren() {
  const pid_t pid = waitpid(-1, nullptr, WNOHANG);
  return !(pid < 0 && errno == ECHILD);
}

SmallConfigFs::SmallConfigFs(unsigned long bytes) {
  const std::string options = "size=" + std::to_string(bytes);
  if (mount("kxrules-small", kConfigDir, "tmpfs", 0, options.c_str()) != 0) {
    Fail("mount tmpfs on the configuration directory");
  }
  boost::filesystem::create_directories(kRulesDir);
}

SmallConfigFs::~SmallConfigFs() { umount2(kConfigDir, MNT_DETACH); }

void SmallConfigFs::Fill() {
  const std::string path = std::string(kConfigDir) + "filler";
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) Fail("open filler");
  const std::string block(4096, 'x');
  while (write(fd, block.data(), block.size()) > 0) {
  }
  // Page-sized writes may leave a tail smaller than a block.
  while (write(fd, "x", 1) > 0) {
  }
  close(fd);
}

ReadOnlyConfigDir::ReadOnlyConfigDir() {
  if (mount(kConfigDir, kConfigDir, nullptr, MS_BIND, nullptr) != 0) {
    Fail("bind the configuration directory");
  }
  if (mount(nullptr, kConfigDir, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY,
            nullptr) != 0) {
    umount2(kConfigDir, MNT_DETACH);
    Fail("remount the configuration directory read-only");
  }
}

ReadOnlyConfigDir::~ReadOnlyConfigDir() { umount2(kConfigDir, MNT_DETACH); }

}  // namespace rulestest
