// The "remove", "export" and "reload" commands: each is one or more runs of
// the rule-control tool, whose outcome becomes the reply.
#include <libintl.h>

#include <memory>
#include <string>
#include <vector>

#include "aec_commands.h"
#include "aec_replies.h"
#include "aec_request_switch.h"
#include "aec_rule_commands.h"
#include "host/errors.h"
#include "kxaecctl.h"

namespace {

std::vector<std::string> ArrayOf(const boost::shared_ptr<IXml>& node,
                                 const std::string& name) {
  return node ? node->GetArray(name) : std::vector<std::string>();
}

bool IsEmptyText(const std::unique_ptr<char[]>& value) {
  return !value || value[0] == '\0';
}

}  // namespace

namespace aec {

void HandleRemove(parsed_xml_data_t* request) {
  const std::unique_ptr<char[]> all_rules(
      request->xml->GetAttribute("all_rules"));
  const auto rule = request->xml->GetNode("rule");
  std::vector<std::string> names = ArrayOf(rule, "name");
  const auto whitelist = request->xml->GetNode("whitelist");
  const std::vector<std::string> users = ArrayOf(whitelist, "u");
  const std::vector<std::string> groups = ArrayOf(whitelist, "g");
  const auto exceptions = request->xml->GetNode("resource-exception");
  const std::vector<std::string> resources = ArrayOf(exceptions, "r");
  auto result = XMLParserBoost::CreateEmptyXML();

  if (aec::IsSwitchOn(all_rules)) {
    KxAecCtl tool("rm", true);
    tool.SetAllRules();
    result->AddNode("all_rules", MakeToolReply(tool), true);
    // Whatever the tool answered, no rule is removed a second time by name.
    names.clear();
  }
  for (const auto& name : names) {
    KxAecCtl tool("rm", true);
    tool.AddRules({name});
    auto outcome = MakeToolReply(tool);
    outcome->AddValue("name", name, false);
    result->AddNode("rule", outcome, true);
  }
  RunListTools("rm", users, groups, resources, result);

  request->reply->AddNode("remove", result, false);
}

void HandleExport(parsed_xml_data_t* request) {
  const std::unique_ptr<char[]> name(request->xml->GetAttribute("name"));
  const std::unique_ptr<char[]> file(request->xml->GetAttribute("file"));
  boost::shared_ptr<IXml> document;
  try {
    if (IsEmptyText(name)) {
      throw PluginException(std::string(error::kMissingArg) +
                            gettext("rule name"));
    }
    if (IsEmptyText(file)) {
      throw PluginException(std::string(error::kMissingArg) +
                            gettext("file path"));
    }
    // An unknown rule is the tool's to report.
    KxAecCtl tool("export", true);
    tool.AddRules({name.get()});
    tool.AddResourceFile(file.get());
    document = MakeToolReply(tool);
  } catch (const PluginException& e) {
    document = MakeErrorReply(e.what());
  }
  request->reply->AddNode("export", document, true);
}

void HandleReload(parsed_xml_data_t* request) {
  boost::shared_ptr<IXml> document;
  try {
    KxAecCtl tool("reload", true);
    document = MakeToolReply(tool);
  } catch (const PluginException& e) {
    document = MakeErrorReply(e.what());
  }
  request->reply->AddNode("reload", document, true);
}

}  // namespace aec
