// Shared by the tool tests: the built tools installed into the sandbox's
// /opt/korvex/bin, a way to run them, and small file helpers.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "config_files.h"
#include "kxaecctl.h"
#include "kxtest.h"

namespace toolstest {

inline const std::string kKxaecctl = "/opt/korvex/bin/kxaecctl";
inline const std::string kKxaide = "/opt/korvex/bin/kxaide";
inline const std::string kConfigDir = "/opt/korvex/etc/aec/";
inline const std::string kRulesDir = "/opt/korvex/etc/aec/rules/";
inline const std::string kWhitelist = "/opt/korvex/etc/aec/white-list.config";
inline const std::string kExceptions =
    "/opt/korvex/etc/aec/resource-exception.conf";
inline const std::string kSources = "/opt/korvex/etc/aec/policy-sources.conf";
inline const std::string kCrcList = "/opt/korvex/etc/aec/crc-rule.conf";
inline const std::string kCrcDb = "/opt/korvex/etc/aec/crc-rule.db";
inline const std::string kCrcOut = "/opt/korvex/etc/aec/crc-rule-out.db";
inline const std::string kLoadedSet = "/opt/korvex/var/lib/aec/loaded-rules";
// Where tests put resources: plain files, so rules hold exactly them.
inline const std::string kResourceDir = "/opt/korvex/var/tmp/res/";

struct ToolRun : kxtest::RunResult {
  std::vector<std::string> OutLines() const;
};

// Runs `program` with `args` (no shell), standard input empty.
ToolRun RunTool(const std::string& program,
                const std::vector<std::string>& args);

// Copies the built kxaecctl and kxaide into /opt/korvex/bin.
void InstallTools();

// A resource file kResourceDir + name (made with some content); its path.
std::string Resource(const std::string& name);

std::string RulePath(const std::string& name);
// The rule file as the plug-in writes it (flags and lists given).
std::string RuleJson(const std::string& name, bool all_allowed, bool extended,
                     bool system, bool enable,
                     const std::vector<std::string>& users,
                     const std::vector<std::string>& groups,
                     const std::vector<std::string>& resources);
using kxtest::WhitelistJson;
// `text` as the Boost JSON writer puts it in a string ("/" as "\/").
std::string JsonEscaped(const std::string& text);
using kxtest::RuleFiles;
// The lines of a file.
std::vector<std::string> Lines(const std::string& path);
// Sets the whitelist source in the policy-sources record.
void SetWhitelistSource(const std::string& source);

class ToolsTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override;
  ToolRun Ctl(const std::vector<std::string>& args) {
    return toolstest::RunTool(kKxaecctl, args);
  }
  ToolRun Aide(const std::vector<std::string>& args) {
    return toolstest::RunTool(kKxaide, args);
  }
  // Loads and seals the configuration as it stands (kxaecctl reload),
  // which is what a fresh installation does once.
  void Seal();
};

// ToolsTest with two real programs, a_ and b_, to name as resources: where
// most tool tests start.
class TwoResourcesTest : public ToolsTest {
 protected:
  void SetUp() override {
    ToolsTest::SetUp();
    a_ = Resource("a");
    b_ = Resource("b");
  }
  std::string a_, b_;
};

// TwoResourcesTest with the (empty) configuration loaded and sealed, as a
// fresh installation has it.
class SealedTwoResourcesTest : public TwoResourcesTest {
 protected:
  void SetUp() override {
    TwoResourcesTest::SetUp();
    Seal();
  }
};

}  // namespace toolstest
