// Helpers shared by the rules suite: rule files, requests through the
// plug-in's dispatcher, and mounts that make the configuration directory
// fail to write.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <set>
#include <string>
#include <vector>

#include "config_files.h"
#include "host/ixml.h"

namespace rulestest {

extern const char* const kRulesDir;   // "/opt/korvex/etc/aec/rules/"
extern const char* const kConfigDir;  // "/opt/korvex/etc/aec/"

using kxtest::RuleFiles;
using kxtest::RuleJson;
using kxtest::RuleSpec;
using kxtest::RuleTree;

// An import-policies document (JSON) setting the rules policy to `rules`
// on behalf of `source`.
std::string RulesImportJson(const std::vector<RuleSpec>& rules,
                            const std::string& source);
// Writes RuleJson(rule) to <rules dir>/<file name>, by default <name>.conf.
void WriteRuleFile(const RuleSpec& rule, const std::string& file_name = "");

// Parses `request` (one XML element), runs it through plugin_exec and
// returns the reply document's content tree. `outcome` receives the host's
// record of how the request ended (1 sent, 2 released without a reply).
boost::property_tree::ptree Exec(const std::string& request,
                                 int* outcome = nullptr);

// Counts the open descriptors of this process.
int OpenDescriptorCount();
// True when this process has a child (running or unreaped).
bool HasChildren();

// Mounts a tmpfs of `bytes` over the configuration directory (with an empty
// rules directory in it) while it lives.
class SmallConfigFs {
 public:
  explicit SmallConfigFs(unsigned long bytes);
  ~SmallConfigFs();
  SmallConfigFs(const SmallConfigFs&) = delete;
  SmallConfigFs& operator=(const SmallConfigFs&) = delete;
  // Fills the file system until no byte is left.
  void Fill();
};

// Makes the configuration directory read-only (a read-only bind mount of
// itself) while it lives.
class ReadOnlyConfigDir {
 public:
  ReadOnlyConfigDir();
  ~ReadOnlyConfigDir();
  ReadOnlyConfigDir(const ReadOnlyConfigDir&) = delete;
  ReadOnlyConfigDir& operator=(const ReadOnlyConfigDir&) = delete;
};

}  // namespace rulestest
