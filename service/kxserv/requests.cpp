#include "requests.h"

#include <boost/property_tree/json_parser.hpp>
#include <ctime>
#include <exception>
#include <memory>
#include <optional>
#include <system_error>
#include <vector>

#include "aec_paths.h"
#include "console_login.h"
#include "host/document_limits.h"
#include "host/ixml.h"
#include "host/policy_manager.h"
#include "tool_run.h"

namespace kxserv {
namespace {

using Tree = boost::property_tree::ptree;

boost::shared_ptr<IXml> NewDocument() {
  return XMLParserBoost::CreateEmptyXML();
}

std::string Print(const boost::shared_ptr<IXml>& reply) {
  return reply->ToString("reply");
}

// The first child element of a service request: the policies document of
// set-policies, whatever its own name.
boost::shared_ptr<kxhost::XmlDocument> FirstChildElement(
    kxhost::XmlDocument& request) {
  for (const auto& child : request.Tree()) {
    if (child.first.empty() || child.first[0] == '<') continue;
    return boost::shared_ptr<kxhost::XmlDocument>(
        new kxhost::XmlDocument(child.first, child.second));
  }
  return nullptr;
}

std::string Policies(const kxhost::PluginEntryPoints& plugin) {
  auto document = NewDocument();
  const bool ok = plugin.policies(document);
  auto reply = NewDocument();
  reply->AddValue("result", ok ? "1" : "0", false);
  reply->AddNode("policies", document, false);
  return Print(reply);
}

std::string SetPoliciesRequest(const kxhost::PluginEntryPoints& plugin,
                               kxhost::XmlDocument& request) {
  auto document = FirstChildElement(request);
  if (!document) {
    return ErrorReply("bad_request",
                      "set-policies needs the policies document as its "
                      "child element");
  }
  std::string why;
  const bool ok = SetPolicies(plugin, document, &why);
  auto reply = NewDocument();
  reply->AddValue("result", ok ? "1" : "0", false);
  if (!ok) reply->AddValue("error_desc", why, false);
  reply->AddNode("policies", document, false);
  return Print(reply);
}

std::string ImportPoliciesRequest(const kxhost::PluginEntryPoints& plugin,
                                  kxhost::XmlDocument& request) {
  std::unique_ptr<char[]> json(request.GetParam("json"));
  if (!json) {
    return ErrorReply("bad_request",
                      "import-policies needs the JSON document as the text "
                      "of its child element json");
  }
  auto result = NewDocument();
  std::string why;
  const bool ok = ImportPolicies(plugin, json.get(), result, &why);
  auto reply = NewDocument();
  reply->AddValue("result", ok ? "1" : "0", false);
  if (!ok) reply->AddValue("error_desc", why, false);
  reply->AddNode("import", result, false);
  return Print(reply);
}

std::string Info(const kxhost::PluginEntryPoints& plugin) {
  plugin_info_data_t info{};
  plugin.info(&info);
  info.name[sizeof info.name - 1] = '\0';
  info.description[sizeof info.description - 1] = '\0';
  auto reply = NewDocument();
  reply->AddValue("result", "1", false);
  reply->AddValue("name", info.name, false);
  reply->AddValue("description", info.description, false);
  reply->AddValue("kind", std::to_string(info.kind), false);
  reply->AddValue("api_version", std::to_string(info.api_version), false);
  return Print(reply);
}

std::string State(const kxhost::PluginEntryPoints& plugin,
                  const ServiceStatus& status) {
  plugin_state_data_t state{};
  plugin.state(&state);
  auto reply = NewDocument();
  reply->AddValue("result", "1", false);
  reply->AddValue("busy", std::to_string(state.busy), false);
  reply->AddValue("clients", std::to_string(status.clients), false);
  reply->AddValue("subscribers", std::to_string(status.subscribers), false);
  reply->AddValue("requests", std::to_string(status.requests), false);
  reply->AddValue("refused", std::to_string(status.refused), false);
  reply->AddValue("station_blocked", status.station_blocked ? "1" : "0", false);
  if (status.station_blocked) {
    reply->AddValue("block_reason", status.block_reason, false);
  }
  return Print(reply);
}

// A learning run may replay a whole journal; it is bounded so that the
// worker, which it holds, comes back.
constexpr int kLearningTimeoutMs = 120000;
constexpr std::size_t kLearningOutputLimit = 8u << 20;

std::string Attribute(kxhost::XmlDocument& request, const char* name) {
  std::unique_ptr<char[]> value(request.GetAttribute(name));
  return value ? std::string(value.get()) : std::string();
}

// Adds `--option value` for each attribute the request carries. Times are
// whole seconds; names may not start with '-' (they would read as options).
bool LearningArguments(kxhost::XmlDocument& request,
                       const std::vector<std::string>& times,
                       const std::vector<std::string>& names,
                       std::vector<std::string>* argv, std::string* why) {
  for (const std::string& name : times) {
    const std::string value = Attribute(request, name.c_str());
    if (value.empty()) continue;
    if (value.find_first_not_of("0123456789") != std::string::npos) {
      *why =
          name + " must be whole seconds since the epoch, not '" + value + "'";
      return false;
    }
    argv->push_back("--" + name);
    argv->push_back(value);
  }
  for (const std::string& name : names) {
    const std::string value = Attribute(request, name.c_str());
    if (value.empty()) continue;
    if (value[0] == '-') {
      *why = name + " '" + value + "' is not a name";
      return false;
    }
    argv->push_back("--" + name);
    argv->push_back(value);
  }
  return true;
}

// Runs the tool and answers with what it printed: `report` (standard
// output), `messages` (standard error), `exit_code`. `result` is 1 when the
// exit code is one of `ok_codes`.
std::string ToolReply(const std::vector<std::string>& argv,
                      const std::vector<int>& ok_codes) {
  ToolOutput run;
  try {
    run = RunTool(argv, kLearningTimeoutMs, kLearningOutputLimit);
  } catch (const std::system_error& e) {
    return ErrorReply("tool_failed",
                      std::string("cannot run kxaecctl: ") + e.what());
  }
  if (run.timed_out) {
    return ErrorReply("tool_failed",
                      "kxaecctl " + argv[1] + " ran longer than " +
                          std::to_string(kLearningTimeoutMs / 1000) +
                          " s and was stopped; narrow the period");
  }
  bool ok = false;
  for (int code : ok_codes) ok = ok || run.exit_code == code;
  auto reply = NewDocument();
  reply->AddValue("result", ok ? "1" : "0", false);
  reply->AddValue("exit_code", std::to_string(run.exit_code), false);
  reply->AddValue("report", run.out, false);
  reply->AddValue("messages", run.err, false);
  if (run.truncated) reply->AddValue("truncated", "1", false);
  return Print(reply);
}

std::string Propose(kxhost::XmlDocument& request) {
  std::vector<std::string> argv = {aec::kToolPath, "propose"};
  std::string why;
  if (!LearningArguments(request, {"since", "until"}, {"user", "group"}, &argv,
                         &why)) {
    return ErrorReply("bad_request", why);
  }
  return ToolReply(argv, {0});
}

std::string Simulate(kxhost::XmlDocument& request) {
  std::vector<std::string> argv = {aec::kToolPath, "simulate", "--mode",
                                   "hard"};
  std::string why;
  if (!LearningArguments(request, {"since", "until"}, {}, &argv, &why)) {
    return ErrorReply("bad_request", why);
  }
  // 26: the replay ran and found what hard mode would deny; that is an
  // answer, not a failure.
  return ToolReply(argv, {0, 26});
}

std::string ConsoleLogin(const ServiceContext& context) {
  std::string token;
  const std::time_t now = std::time(nullptr);
  try {
    token = context.logins->Issue(now, context.console_login_seconds);
  } catch (const std::system_error& e) {
    return ErrorReply("login_failed",
                      std::string("no login token can be made: ") + e.what());
  }
  auto reply = NewDocument();
  reply->AddValue("result", "1", false);
  reply->AddValue("token", token, false);
  reply->AddValue("expires",
                  std::to_string(now + context.console_login_seconds), false);
  return Print(reply);
}

std::string ConsoleRedeem(kxhost::XmlDocument& request,
                          const ServiceContext& context) {
  const std::string token = Attribute(request, "token");
  if (token.empty()) {
    return ErrorReply("bad_request", "console-redeem needs a token attribute");
  }
  if (!context.logins->Redeem(token, std::time(nullptr))) {
    return ErrorReply("bad_token",
                      "the login token is unknown, used already or expired");
  }
  auto reply = NewDocument();
  reply->AddValue("result", "1", false);
  return Print(reply);
}

}  // namespace

bool IsServiceRequest(const kxhost::XmlDocument& document) {
  return document.Name() == kServiceElement;
}

std::string ServiceCommand(kxhost::XmlDocument& document) {
  std::unique_ptr<char[]> command(document.GetCommand());
  return command ? std::string(command.get()) : std::string();
}

std::string ErrorReply(const std::string& code, const std::string& text) {
  auto reply = NewDocument();
  reply->AddValue("result", "0", false);
  reply->AddValue("error_code", code, false);
  reply->AddValue("error_desc", text, false);
  return Print(reply);
}

namespace {
thread_local std::optional<std::string> sent_reply;
}  // namespace

void NoteSentReply(std::string text) { sent_reply = std::move(text); }

std::string RunPluginRequest(
    const kxhost::PluginEntryPoints& plugin,
    const boost::shared_ptr<kxhost::XmlDocument>& request) {
  parsed_xml_data_t record;
  record.xml = request;
  record.reply = NewDocument();
  sent_reply.reset();
  plugin.exec(&record);
  std::optional<std::string> sent = std::move(sent_reply);
  sent_reply.reset();
  if (record.outcome == 1) return sent ? std::move(*sent) : Print(record.reply);
  std::unique_ptr<char[]> command(request->GetCommand());
  return ErrorReply(
      "unanswered",
      "the plug-in released the request '" +
          std::string(command ? command.get() : "") +
          "' without a reply (an unknown command, or its handler failed; "
          "see the log)");
}

std::string RunServiceRequest(const kxhost::PluginEntryPoints& plugin,
                              kxhost::XmlDocument& request,
                              const ServiceContext& context) {
  const std::string command = ServiceCommand(request);
  const ServiceStatus& status = context.status;
  if (command == "policies") return Policies(plugin);
  if (command == "set-policies") return SetPoliciesRequest(plugin, request);
  if (command == "import-policies") {
    return ImportPoliciesRequest(plugin, request);
  }
  if (command == "info") return Info(plugin);
  if (command == "state") return State(plugin, status);
  if (command == "propose") return Propose(request);
  if (command == "simulate") return Simulate(request);
  if (context.logins != nullptr) {
    if (command == "console-login") return ConsoleLogin(context);
    if (command == "console-redeem") return ConsoleRedeem(request, context);
  }
  return ErrorReply("unknown_command",
                    "unknown service command '" + command + "'");
}

bool SetPolicies(const kxhost::PluginEntryPoints& plugin,
                 boost::shared_ptr<IXml> document, std::string* why) {
  if (plugin.set_policies(document)) return true;
  *why = "plugin_set_policies reported failure (see the log)";
  return false;
}

bool ImportPolicies(const kxhost::PluginEntryPoints& plugin,
                    const std::string& json, boost::shared_ptr<IXml> result,
                    std::string* why) {
  parsed_json_data_t data;
  data.text = json;
  try {
    data.tree = kxdoc::ParseJson(json, kxdoc::kHostDocumentLimits);
  } catch (const kxdoc::DocumentLimitError& e) {
    *why = e.what();
    return false;
  } catch (const boost::property_tree::json_parser_error& e) {
    *why = "malformed JSON: " + e.message() + " (line " +
           std::to_string(e.line()) + ")";
    return false;
  }
  if (plugin.import_policies(data, result)) return true;
  *why = "plugin_import_policies reported failure (see the log)";
  return false;
}

}  // namespace kxserv
