// The "get" command: rules, whitelist and resource exceptions in one reply,
// each section with its own result and source so that one failing section
// does not spoil the others.
#include <libintl.h>
#include <syslog.h>

#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "aec_commands.h"
#include "aec_exceptions_file.h"
#include "aec_paths.h"
#include "aec_replies.h"
#include "aec_request_switch.h"
#include "aec_rule.h"
#include "aecwhitelist.h"
#include "host/errors.h"
#include "host/log.h"
#include "host/policy_sources.h"
#include "ixml_add_array.h"

namespace aec {
namespace {

boost::shared_ptr<IXml> RulesSection(const std::string& name, bool extended) {
  auto rules = XMLParserBoost::CreateEmptyXML();
  if (!name.empty()) {
    if (!AecRule::IsExist(name)) {
      throw PluginException(gettext("Rule does not exists: ") + name);
    }
    rules->AddNode("rule", AecRule(AecRule::GetPath(name)).GetXml(extended),
                   true);
  } else {
    // Listing order is the directory's; every entry goes to the rule reader,
    // which decides what it can read.
    for (const auto& entry : boost::filesystem::directory_iterator(kRulesDir)) {
      rules->AddNode("rule", AecRule(entry.path().string()).GetXml(extended),
                     true);
    }
  }
  rules->AddValue("source", AecPolicySources::Get()->GetRulesSource(), false);
  return rules;
}

boost::shared_ptr<IXml> WhitelistSection() {
  auto section = XMLParserBoost::CreateEmptyXML();
  const UsersAndGroups list = AECWhiteList::Get();
  section->AddArray(list.users, "u");
  section->AddArray(list.groups, "g");
  section->AddValue("source", AECWhiteList::CurrentSource(), false);
  return section;
}

boost::shared_ptr<IXml> ExceptionSection() {
  auto section = XMLParserBoost::CreateEmptyXML();
  for (const std::string& path : ReadExceptionsFile()) {
    section->AddValue("r", path, true);
  }
  section->AddValue("source", AecPolicySources::Get()->GetExceptionSource(),
                    false);
  return section;
}

}  // namespace

void HandleGet(parsed_xml_data_t* request) {
  std::unique_ptr<char[]> rule(request->xml->GetParam("rule"));
  std::unique_ptr<char[]> rule_resource(
      request->xml->GetAttribute("rule_resource"));
  std::unique_ptr<char[]> whitelist(request->xml->GetAttribute("whitelist"));
  std::unique_ptr<char[]> exceptions(
      request->xml->GetAttribute("resource-exception"));
  auto result = XMLParserBoost::CreateEmptyXML();

  if (rule) {
    try {
      AddOkResult(result, "rules",
                  RulesSection(rule.get(), IsSwitchOn(rule_resource)));
    } catch (const PluginException& e) {
      // Nothing of the rules read before the failure is kept.
      result->AddNode("rules", MakeErrorReply(e.what()), true);
    }
  }

  if (IsSwitchOn(whitelist)) {
    try {
      AddOkResult(result, "whitelist", WhitelistSection());
    } catch (const PluginException& e) {
      result->AddNode("whitelist", MakeErrorReply(e.what()), true);
    }
  }

  if (IsSwitchOn(exceptions)) {
    try {
      AddOkResult(result, "resource-exception", ExceptionSection());
    } catch (const std::exception& e) {
      // The client gets the host's fixed text; the parser's message is for
      // the log only.
      log_trivial(
          LOG_ERR,
          std::string("failed to parse AEC resource-exception config: ") +
              e.what());
      result->AddNode("resource-exception",
                      MakeErrorReply(error::kInvalidConfig), true);
    }
  }

  request->reply->AddNode("get", std::move(result), false);
}

}  // namespace aec
