// The "add" and "edit" commands. Neither writes rule files itself: every
// change is one run of the rule-control tool, which keeps the rule set and
// its checksum consistent.
#include "aec_rule_commands.h"

#include <libintl.h>

#include <memory>
#include <string>
#include <vector>

#include "aec_commands.h"
#include "aec_replies.h"
#include "aec_request_switch.h"
#include "aec_rule.h"
#include "host/errors.h"
#include "kxaecctl.h"

namespace {

// An attribute as an owned text; null when absent.
std::unique_ptr<char[]> Attribute(const boost::shared_ptr<IXml>& doc,
                                  const std::string& name) {
  return std::unique_ptr<char[]>(doc->GetAttribute(name));
}

// The rule name of a request; a missing or empty one is reported as the
// missing argument "rule name".
std::string RequiredRuleName(const boost::shared_ptr<IXml>& rule) {
  std::unique_ptr<char[]> name;
  if (rule) name = Attribute(rule, "name");
  if (!name || name[0] == '\0') {
    throw PluginException(std::string(error::kMissingArg) +
                          gettext("rule name"));
  }
  return name.get();
}

}  // namespace

namespace aec {
namespace {

// One sub-operation of "edit": a run of `command` on the rule with the
// arguments of `document`, its reply under the command's name.
void RunOnRule(const std::string& command, const std::string& rule_name,
               const boost::shared_ptr<IXml>& document, bool allowAllUsers,
               const boost::shared_ptr<IXml>& result) {
  KxAecCtl tool(command, true);
  tool.AddRules({rule_name});
  BuildToolArgs(document, tool, allowAllUsers);
  result->AddNode(command, MakeToolReply(tool), true);
}

}  // namespace

void BuildToolArgs(const boost::shared_ptr<IXml>& document, KxAecCtl& tool,
                   bool allowAllUsers) {
  const std::vector<std::string> users = document->GetArray("u");
  const std::vector<std::string> groups = document->GetArray("g");
  const std::vector<std::string> resources = document->GetArray("r");
  const auto resource_file = Attribute(document, "resource-file");
  const auto recursive = Attribute(document, "recursive");
  const auto no_depend = Attribute(document, "no-depend");
  const auto disable = Attribute(document, "disable");
  const auto extended = Attribute(document, "extended");
  const auto all_users = Attribute(document, "all-users");

  if (allowAllUsers && aec::IsSwitchOn(all_users)) {
    tool.SetAllUseres();
  } else {
    tool.AddUsers(users);
    tool.AddGroups(groups);
  }
  tool.AddResources(resources);
  if (resource_file && resource_file[0] != '\0') {
    tool.AddResourceFile(resource_file.get());
  }
  if (aec::IsSwitchOn(recursive)) tool.SetRecursive();
  if (aec::IsSwitchOn(no_depend)) tool.SetNoDepend();
  if (aec::IsSwitchOn(disable)) tool.SetDisable();
  if (!allowAllUsers && aec::IsSwitchOn(extended)) tool.SetExtended();
}

void RunListTools(const std::string& command,
                  const std::vector<std::string>& users,
                  const std::vector<std::string>& groups,
                  const std::vector<std::string>& resources,
                  const boost::shared_ptr<IXml>& result) {
  if (!users.empty() || !groups.empty()) {
    KxAecCtl tool(command, true);
    tool.AddUsers(users);
    tool.AddGroups(groups);
    result->AddNode("whitelist", MakeToolReply(tool), true);
  }
  if (!resources.empty()) {
    KxAecCtl tool(command, true);
    tool.AddResources(resources);
    result->AddNode("resource-exception", MakeToolReply(tool), true);
  }
}

void HandleAdd(parsed_xml_data_t* request) {
  const auto rule = request->xml->GetNode("rule");
  const auto whitelist = request->xml->GetNode("whitelist");
  const auto exceptions = request->xml->GetNode("resource-exception");
  auto result = XMLParserBoost::CreateEmptyXML();

  if (rule) {
    try {
      const std::string name = RequiredRuleName(rule);
      if (AecRule::IsExist(name)) {
        throw PluginException(gettext("The rule is already exist: ") + name);
      }
      KxAecCtl tool("add", true);
      tool.AddRules({name});
      BuildToolArgs(rule, tool, false);
      result->AddNode("rule", MakeToolReply(tool), true);
    } catch (const PluginException& e) {
      result->AddNode("rule", MakeErrorReply(e.what()), true);
    }
  }

  // Whitelist members and resource exceptions are added by runs of their
  // own, without a rule name.
  const std::vector<std::string> none;
  RunListTools("add", whitelist ? whitelist->GetArray("u") : none,
               whitelist ? whitelist->GetArray("g") : none,
               exceptions ? exceptions->GetArray("r") : none, result);

  request->reply->AddNode("add", result, false);
}

void HandleEdit(parsed_xml_data_t* request) {
  const auto rule = request->xml->GetNode("rule");
  std::unique_ptr<char[]> name;
  boost::shared_ptr<IXml> add_doc, remove_doc, update_doc;
  std::unique_ptr<char[]> state, new_name;
  // A request without a "rule" child reads like one without a rule name.
  if (rule) {
    name = Attribute(rule, "name");
    add_doc = rule->GetNode("add");
    remove_doc = rule->GetNode("remove");
    update_doc = rule->GetNode("update");
    state = Attribute(rule, "state");
    new_name = Attribute(rule, "rename");
  }
  auto result = XMLParserBoost::CreateEmptyXML();

  try {
    const std::string rule_name = RequiredRuleName(rule);
    if (!AecRule::IsExist(rule_name)) {
      throw PluginException(gettext("Rule does not exists: ") + rule_name);
    }
    // Each sub-operation is a run of its own with its own outcome; one that
    // fails does not stop the later ones, and nothing is rolled back. The
    // rename comes last so the others still find the rule by its old name.
    if (add_doc) RunOnRule("add", rule_name, add_doc, false, result);
    if (remove_doc) {
      const auto resources = remove_doc->GetArray("r");
      const auto users = remove_doc->GetArray("u");
      const auto groups = remove_doc->GetArray("g");
      if (resources.empty() && users.empty() && groups.empty()) {
        // With nothing to take out, the tool's command line would be
        // "rm -C -v -n <rule>", which is exactly the removal of the whole
        // rule: refuse instead of deleting the rule by accident.
        result->AddNode("remove", MakeErrorReply(gettext("Invalid argument")),
                        true);
      } else {
        KxAecCtl tool("rm", true);
        tool.AddRules({rule_name});
        tool.AddResources(resources);
        tool.AddUsers(users);
        tool.AddGroups(groups);
        result->AddNode("remove", MakeToolReply(tool), true);
      }
    }
    if (update_doc) RunOnRule("update", rule_name, update_doc, true, result);
    if (state) {
      const std::string wanted = state.get();
      if (wanted == "1" || wanted == "0") {
        KxAecCtl tool(wanted == "1" ? "enable" : "disable", true);
        tool.AddRules({rule_name});
        result->AddNode("state", MakeToolReply(tool), true);
      }
    }
    if (new_name && new_name[0] != '\0') {
      KxAecCtl tool("rename", true);
      tool.AddRules({rule_name});
      tool.AddNewName(new_name.get());
      result->AddNode("rename", MakeToolReply(tool), true);
    }
  } catch (const PluginException& e) {
    result->AddNode("rule", MakeErrorReply(e.what()), true);
  }

  request->reply->AddNode("edit", result, false);
}

}  // namespace aec
