// The examples of docs/policies.md, read from the page itself, parse and set
// as the page says.
#include <gtest/gtest.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/policy_manager.h"
#include "host/policy_sources.h"
#include "host/request_getters.h"
#include "kxtest.h"
#include "lib/xml_document.h"
#include "test_policies.h"

namespace {

namespace pt = boost::property_tree;
using hostpolicytest::RecordingKernelPolicy;
using hostpolicytest::RecordingLocalPolicy;
using hostpolicytest::RecordingManager;

// The fenced block opened by a line "```<language> example:<id>".
std::string Example(const std::string& id) {
  std::ifstream in(std::string(KX_SOURCE_DIR) + "/docs/policies.md");
  if (!in) throw std::runtime_error("docs/policies.md is not readable");
  const std::string marker = " example:" + id;
  std::string line;
  std::string block;
  bool inside = false;
  while (std::getline(in, line)) {
    if (!inside) {
      inside =
          line.compare(0, 3, "```") == 0 && line.size() >= marker.size() &&
          line.compare(line.size() - marker.size(), marker.size(), marker) == 0;
      continue;
    }
    if (line.compare(0, 3, "```") == 0) return block;
    block += line + "\n";
  }
  throw std::runtime_error("no example '" + id + "' in docs/policies.md");
}

pt::ptree ReadJson(const std::string& text) {
  pt::ptree tree;
  std::istringstream in(text);
  pt::read_json(in, tree);
  return tree;
}

std::vector<std::string> ChildValues(const pt::ptree& tree) {
  std::vector<std::string> values;
  for (const auto& child : tree) values.push_back(child.second.data());
  return values;
}

// The aec plug-in's eleven policies, as test policies of the same names,
// kinds and value nodes.
class DocumentedExamplesTest : public kxtest::SandboxTest {
 protected:
  void AddKernel(const std::string& name, const std::string& text,
                 const std::string& description,
                 std::shared_ptr<PolicyDbRequestGetter> getter,
                 const std::string& db_name = "") {
    auto policy = std::make_shared<RecordingKernelPolicy>(
        manager_, name, text, getter, nullptr, db_name, description);
    kernel_[name] = policy;
    manager_.AddPolicy(policy);
  }
  void AddLocal(const std::string& name, const std::string& description) {
    auto policy =
        std::make_shared<RecordingLocalPolicy>(name, nullptr, description);
    local_[name] = policy;
    manager_.AddPolicy(policy);
  }
  // The three policies the abridged examples show.
  void AddAbridgedSet() {
    AddKernel("state", "0", "AEC state", control_, "aec_state");
    AddKernel("log_perm_exec", "", "Register file execution", log_getter_);
    AddLocal("rules", "Application execution control rules");
  }
  void AddFullSet() {
    AddKernel("state", "0", "AEC state", control_, "aec_state");
    AddKernel("mode", "0", "AEC mode", control_, "aec_mode");
    for (const char* name :
         {"log_perm_exec", "log_deny_exec", "log_perm_openlib",
          "log_deny_openlib", "log_perm_openfile", "log_deny_openfile"}) {
      AddKernel(name, "", name, log_getter_);
    }
    AddLocal("whitelist", "Whitelist");
    AddLocal("exceptions", "Resource exceptions");
    AddLocal("rules", "Application execution control rules");
  }

  RecordingManager manager_;
  std::shared_ptr<ControlPolicyDbRequestGetter> control_ =
      std::make_shared<ControlPolicyDbRequestGetter>();
  std::shared_ptr<AecLogPolicyDbRequestGetter> log_getter_ =
      std::make_shared<AecLogPolicyDbRequestGetter>();
  std::map<std::string, std::shared_ptr<RecordingKernelPolicy>> kernel_;
  std::map<std::string, std::shared_ptr<RecordingLocalPolicy>> local_;
};

TEST_F(DocumentedExamplesTest, PoliciesDocumentIsWhatGetPoliciesXmlMakes) {
  AddAbridgedSet();
  auto xml = XMLParserBoost::CreateEmptyXML();
  ASSERT_TRUE(manager_.GetPoliciesXml(xml));
  const auto documented = kxhost::ParseXml(Example("policies-document"));
  EXPECT_EQ(documented->Name(), "policies");
  EXPECT_TRUE(kxhost::TreeOf(*xml) == kxhost::TreeOf(*documented))
      << xml->ToString("policies");
}

TEST_F(DocumentedExamplesTest, SetPoliciesExampleSetsEveryAecPolicy) {
  AddFullSet();
  ASSERT_TRUE(
      manager_.SetPoliciesXml(kxhost::ParseXml(Example("set-policies"))));
  const std::map<std::string, std::string> expected = {
      {"state", "1"},
      {"mode", "0"},
      {"log_perm_exec", "1"},
      {"log_deny_exec", "1"},
      {"log_perm_openlib", "0"},
      {"log_deny_openlib", "1"},
      {"log_perm_openfile", "1"},
      {"log_deny_openfile", "0"}};
  for (const auto& entry : expected) {
    EXPECT_EQ(kernel_[entry.first]->Value(), entry.second) << entry.first;
    EXPECT_EQ(kernel_[entry.first]->Source(), "dorvi") << entry.first;
  }
  // The whitelist in the server form, as text.
  auto whitelist = local_["whitelist"];
  ASSERT_EQ(whitelist->texts_.size(), 1u);
  EXPECT_EQ(whitelist->texts_[0],
            "*S-1-5-21-3623811015-3361044348-30300820-1013,"
            "*S-1-5-21-3623811015-3361044348-30300820-512");
  EXPECT_TRUE(whitelist->trees_.empty());
  // The exceptions as a tree of paths.
  auto exceptions = local_["exceptions"];
  ASSERT_EQ(exceptions->trees_.size(), 1u);
  EXPECT_EQ(
      ChildValues(exceptions->trees_[0]),
      (std::vector<std::string>{"/opt/app/bin/tool", "/usr/lib/libextra.so"}));
  // The rules as a tree of rule objects.
  auto rules = local_["rules"];
  ASSERT_EQ(rules->trees_.size(), 1u);
  const pt::ptree& value = rules->trees_[0];
  ASSERT_EQ(value.size(), 1u);
  const pt::ptree& rule = value.begin()->second;
  EXPECT_EQ(rule.get<std::string>("name"), "build-tools");
  EXPECT_EQ(rule.get<std::string>("all_allowed"), "false");
  EXPECT_EQ(rule.get<std::string>("enable"), "true");
  EXPECT_EQ(ChildValues(rule.get_child("user_list")),
            std::vector<std::string>{"alice"});
  EXPECT_TRUE(rule.get_child("group_list").empty());
  EXPECT_EQ(ChildValues(rule.get_child("resource_list")),
            (std::vector<std::string>{"/usr/bin/make", "/usr/bin/gcc"}));
  for (const auto& entry : local_) {
    EXPECT_EQ(entry.second->Source(), "dorvi") << entry.first;
  }
}

TEST_F(DocumentedExamplesTest, ImportExampleSetsEveryAecPolicy) {
  AddFullSet();
  parsed_json_data_t data;
  data.text = Example("import-policies");
  data.tree = ReadJson(data.text);
  auto result = XMLParserBoost::CreateEmptyXML();
  ASSERT_TRUE(manager_.SetPoliciesJson(data, result));
  EXPECT_EQ(kxhost::TreeOf(*result).count("policy"), 11u);
  EXPECT_EQ(kernel_["state"]->Value(), "1");
  EXPECT_EQ(kernel_["mode"]->Value(), "1");
  EXPECT_EQ(kernel_["log_perm_openfile"]->Value(), "0");
  EXPECT_EQ(kernel_["log_deny_openfile"]->Value(), "1");
  EXPECT_EQ(kernel_["mode"]->Source(), "yunko");
  // The whitelist as named entries.
  auto whitelist = local_["whitelist"];
  ASSERT_EQ(whitelist->trees_.size(), 1u);
  const pt::ptree& entries = whitelist->trees_[0];
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries.begin()->second.get<std::string>("name"), "alice");
  EXPECT_EQ(entries.begin()->second.get<std::string>("type"), "user");
  EXPECT_EQ(entries.rbegin()->second.get<std::string>("type"), "group");
  // The exceptions as an array of paths.
  ASSERT_EQ(local_["exceptions"]->trees_.size(), 1u);
  EXPECT_EQ(
      ChildValues(local_["exceptions"]->trees_[0]),
      (std::vector<std::string>{"/opt/app/bin/tool", "/usr/lib/libextra.so"}));
  // The rules as rule objects with arrays.
  ASSERT_EQ(local_["rules"]->trees_.size(), 1u);
  const pt::ptree& rule = local_["rules"]->trees_[0].begin()->second;
  EXPECT_EQ(rule.get<std::string>("name"), "build-tools");
  EXPECT_EQ(ChildValues(rule.get_child("resource_list")),
            (std::vector<std::string>{"/usr/bin/make", "/usr/bin/gcc"}));
  EXPECT_TRUE(rule.get_child("group_list").empty());
  EXPECT_EQ(local_["rules"]->Source(), "yunko");
}

TEST_F(DocumentedExamplesTest, PartialImportGivesTheDocumentedResult) {
  AddFullSet();
  parsed_json_data_t data;
  data.text = Example("import-partial");
  data.tree = ReadJson(data.text);
  auto result = XMLParserBoost::CreateEmptyXML();
  EXPECT_FALSE(manager_.SetPoliciesJson(data, result));
  EXPECT_EQ(kernel_["log_perm_exec"]->Value(), "0");
  EXPECT_EQ(kernel_["state"]->Value(), "0");  // the other group's entry
  const auto documented = kxhost::ParseXml(Example("import-partial-result"));
  EXPECT_TRUE(kxhost::TreeOf(*result) == kxhost::TreeOf(*documented))
      << result->ToString("result");
}

TEST_F(DocumentedExamplesTest, ExportExampleIsWhatGetPoliciesJsonMakes) {
  AddAbridgedSet();
  const std::string json = manager_.GetPoliciesJson(nullptr);
  EXPECT_TRUE(ReadJson(json) == ReadJson(Example("export-policies"))) << json;
}

TEST_F(DocumentedExamplesTest, PolicySourcesExampleIsTheFileFormat) {
  kxtest::WriteFile(AecPolicySources::ConfigPath(), Example("policy-sources"));
  AecPolicySources* sources = AecPolicySources::Get();
  sources->ReadConfig();
  EXPECT_EQ(sources->GetRulesSource(), "dorvi");
  EXPECT_EQ(sources->GetExceptionSource(), "local");
  EXPECT_EQ(sources->GetWhitelistSource(), "");
  ASSERT_TRUE(sources->WriteConfig());
  EXPECT_TRUE(ReadJson(kxtest::ReadFile(AecPolicySources::ConfigPath())) ==
              ReadJson(Example("policy-sources")));
}

}  // namespace
