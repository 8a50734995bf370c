// The rule reader, from a file and from a tree (the rules policy's value),
// and the writer behind it: whatever the bytes, reading either fails with
// the plug-in's PluginException or yields a rule that writes, reads back and
// deletes cleanly.
//
// Properties checked for every rule that was read:
//  - its own JSON reads back as a rule (the writer never produces something
//    the reader refuses);
//  - what reads back equals it, from the JSON text and from the file that
//    Save wrote (the writer passes bytes from 0x80 up as they are and the
//    reader takes them back so: docs/rules.md);
//  - Save writes the rule's own file in the rules directory and nothing
//    else, and Delete removes it.
#include <dirent.h>
#include <unistd.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstddef>
#include <cstdint>
#include <set>
#include <sstream>
#include <string>

#include "aec_rule.h"
#include "fuzz_env.h"
#include "host/errors.h"

namespace pt = boost::property_tree;

namespace {

const std::string kRulesDir = "/opt/korvex/etc/aec/rules/";
const std::string kInputPath = kRulesDir + "fuzz-input.conf";

std::set<std::string> RuleFiles() {
  std::set<std::string> names;
  if (DIR* dir = opendir(kRulesDir.c_str())) {
    while (const dirent* entry = readdir(dir)) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") names.insert(name);
    }
    closedir(dir);
  }
  return names;
}

void CheckRule(AecRule& rule) {
  rule.GetXml(true);
  rule.GetXml(false);
  const std::string json = rule.ToJson();

  pt::ptree tree;
  std::istringstream in(json);
  pt::read_json(in, tree);  // the writer's own text: must parse
  bool reread = true;
  try {
    AecRule back(tree);
    KXFUZZ_CHECK(back == rule, "rule changed by a round trip");
  } catch (const PluginException&) {
    reread = false;
  }
  KXFUZZ_CHECK(reread, "the reader refuses the writer's own text:\n" + json);

  const std::set<std::string> before = RuleFiles();
  rule.Save();
  const std::string file = rule.Name() + ".conf";
  std::set<std::string> expected = before;
  expected.insert(file);
  KXFUZZ_CHECK(RuleFiles() == expected, "Save wrote something else than " +
                                            AecRule::GetPath(rule.Name()));
  try {
    AecRule saved(AecRule::GetPath(rule.Name()));
    KXFUZZ_CHECK(saved == rule, "rule changed by Save");
  } catch (const PluginException&) {
    KXFUZZ_CHECK(false, "the saved rule file does not read back");
  }
  AecRule::Delete(rule.Name());
  std::set<std::string> after = before;
  after.erase(file);
  KXFUZZ_CHECK(RuleFiles() == after, "Delete left " + file);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kxfuzz::EnterFuzzSandbox();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  kxfuzz::WriteFile(kInputPath, text);
  try {
    AecRule rule(kInputPath);
    CheckRule(rule);
  } catch (const PluginException&) {
  }
  unlink(kInputPath.c_str());

  pt::ptree tree;
  try {
    std::istringstream in(text);
    pt::read_json(in, tree);
  } catch (const pt::json_parser_error&) {
    return 0;
  }
  // The document itself as one rule object, and each of its children as the
  // rules policy takes them.
  try {
    AecRule rule(tree);
    CheckRule(rule);
  } catch (const PluginException&) {
  }
  for (const auto& child : tree) {
    try {
      AecRule rule(child.second);
      CheckRule(rule);
    } catch (const PluginException&) {
    }
  }
  return 0;
}
