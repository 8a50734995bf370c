#include "steps.h"

#include <boost/property_tree/json_parser.hpp>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "host/crypto.h"
#include "host/document_limits.h"
#include "host/ixml.h"
#include "lib/fresh_install.h"
#include "lib/runtime.h"
#include "network_settings.h"

namespace kxhost {
namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUnanswered = 3;
constexpr const char* kPasswordSetting = "KXDomainPassword";
constexpr const char* kInstallRoot = "/opt/korvex";

std::string ReadInput(const std::string& path, bool* stdin_used) {
  const std::string shown = path == "-" ? "standard input" : path;
  std::ifstream file;
  std::istream* in = &std::cin;
  if (path == "-") {
    if (*stdin_used) {
      throw InputError("standard input is read by more than one step");
    }
    *stdin_used = true;
  } else {
    file.open(path, std::ios::binary);
    if (!file) throw InputError("cannot read " + path);
    in = &file;
  }
  // Bounded while reading: a huge input is refused before it is held.
  try {
    return kxdoc::ReadLimited(*in, kxdoc::kHostDocumentLimits.max_bytes);
  } catch (const kxdoc::DocumentLimitError& e) {
    throw InputError(shown + ": " + e.what());
  } catch (const std::runtime_error&) {
    throw InputError("cannot read " + path);
  }
}

boost::shared_ptr<XmlDocument> ParseDocument(const std::string& path,
                                             const std::string& text) {
  try {
    return ParseXml(text);
  } catch (const std::runtime_error& e) {
    throw InputError((path == "-" ? std::string("standard input") : path) +
                     ": " + e.what());
  }
}

void Print(const std::string& text) {
  std::cout << text;
  if (!text.empty() && text.back() != '\n') std::cout << '\n';
  std::cout.flush();
}

// The policies whose Apply failed since `first_event` (host events of kind
// policy_not_applied), for the apply steps, whose entry points do not say.
std::vector<std::string> PoliciesNotApplied(std::size_t first_event) {
  std::vector<std::string> names;
  const auto events = Events();
  for (std::size_t i = first_event; i < events.size(); ++i) {
    if (events[i].kind == "policy_not_applied" && events[i].args.size() == 2) {
      names.push_back(events[i].args[1]);
    }
  }
  return names;
}

// Tells whoever reads the output that the apply failed: the reply document
// may still say result 1 for every entry, which only means the values were
// taken.
int ReportApply(const std::string& step, bool ok, std::size_t first_event) {
  if (!ok) std::fprintf(stderr, "kxhost: plugin_%s failed\n", step.c_str());
  const auto failed = PoliciesNotApplied(first_event);
  for (const auto& name : failed) {
    std::fprintf(stderr,
                 "kxhost: %s: policy '%s' was not applied (the log says "
                 "why)\n",
                 step.c_str(), name.c_str());
  }
  return ok && failed.empty() ? 0 : kExitFailure;
}

int Worse(int current, int code) {
  if (current == kExitFailure || code == 0) return current;
  return code;
}

int RunExec(const PluginEntryPoints& plugin, PreparedStep& prepared) {
  parsed_xml_data_t request;
  request.xml = prepared.document;
  request.reply = XMLParserBoost::CreateEmptyXML();
  plugin.exec(&request);
  if (request.outcome == 1) {
    Print(request.reply->ToString("reply"));
    return 0;
  }
  std::unique_ptr<char[]> command(request.xml->GetCommand());
  std::fprintf(stderr, "kxhost: request '%s' %s\n",
               command ? command.get() : "",
               request.outcome == 2 ? "was released without a reply"
                                    : "was not answered");
  return kExitUnanswered;
}

int RunPluginStep(const PluginEntryPoints& plugin, PreparedStep& prepared) {
  const std::string& name = prepared.step.name;
  if (name == "exec") return RunExec(plugin, prepared);
  if (name == "policies") {
    auto document = XMLParserBoost::CreateEmptyXML();
    const bool ok = plugin.policies(document);
    Print(document->ToString("policies"));
    return ok ? 0 : kExitFailure;
  }
  if (name == "set-policies") {
    boost::shared_ptr<IXml> document = prepared.document;
    const std::size_t first_event = Events().size();
    const bool ok = plugin.set_policies(document);
    Print(document->ToString("policies"));
    return ReportApply("set_policies", ok, first_event);
  }
  if (name == "import-policies") {
    auto result = XMLParserBoost::CreateEmptyXML();
    const std::size_t first_event = Events().size();
    const bool ok = plugin.import_policies(prepared.json, result);
    Print(result->ToString("result"));
    return ReportApply("import_policies", ok, first_event);
  }
  if (name == "info") {
    plugin_info_data_t info{};
    plugin.info(&info);
    info.name[sizeof info.name - 1] = '\0';
    info.description[sizeof info.description - 1] = '\0';
    Print(std::string("name: ") + info.name + "\ndescription: " +
          info.description);
    return 0;
  }
  if (name == "state") {
    plugin_state_data_t state{};
    plugin.state(&state);
    Print("busy: " + std::to_string(state.busy));
    return 0;
  }
  throw std::logic_error("kxhost: no runner for step " + name);
}

int RunHostStep(PreparedStep& prepared) {
  try {
    if (prepared.step.name == "store-password") {
      StoreNetworkSetting(kPasswordSetting, encrypt_password(prepared.password));
    } else if (prepared.step.name == "seed") {
      SeedFreshInstall(kInstallRoot);
      SealFreshInstall();
    } else {
      StoreNetworkSetting(prepared.step.args[0], prepared.step.args[1]);
    }
  } catch (const std::runtime_error& e) {
    std::fprintf(stderr, "kxhost: %s: %s\n", prepared.step.name.c_str(),
                 e.what());
    return kExitFailure;
  }
  return 0;
}

}  // namespace

std::vector<PreparedStep> PrepareSteps(const std::vector<Step>& steps) {
  std::vector<PreparedStep> prepared;
  bool stdin_used = false;
  for (const auto& step : steps) {
    PreparedStep entry;
    entry.step = step;
    if (step.name == "exec" || step.name == "set-policies") {
      entry.document =
          ParseDocument(step.args[0], ReadInput(step.args[0], &stdin_used));
    } else if (step.name == "import-policies") {
      entry.json.text = ReadInput(step.args[0], &stdin_used);
      try {
        entry.json.tree =
            kxdoc::ParseJson(entry.json.text, kxdoc::kHostDocumentLimits);
      } catch (const kxdoc::DocumentLimitError& e) {
        throw InputError(step.args[0] + ": " + e.what());
      } catch (const boost::property_tree::json_parser_error& e) {
        throw InputError(step.args[0] + ": malformed JSON: " + e.message() +
                         " (line " + std::to_string(e.line()) + ")");
      }
    } else if (step.name == "store-password") {
      entry.password = ReadInput("-", &stdin_used);
      // One line is read; its line break is not part of the password.
      const auto end = entry.password.find_first_of("\r\n");
      if (end != std::string::npos) entry.password.erase(end);
      if (entry.password.empty()) {
        throw InputError("store-password: no password on standard input");
      }
    }
    prepared.push_back(std::move(entry));
  }
  return prepared;
}

int RunSteps(const PluginEntryPoints* plugin,
             std::vector<PreparedStep>& steps) {
  int code = 0;
  for (auto& prepared : steps) {
    if (!NeedsPlugin(prepared.step)) {
      code = Worse(code, RunHostStep(prepared));
      continue;
    }
    // The plug-in may let exceptions through (plugin_exec passes those not
    // derived from std::exception); kxhost reports them and goes on.
    try {
      code = Worse(code, RunPluginStep(*plugin, prepared));
    } catch (const std::exception& e) {
      std::fprintf(stderr, "kxhost: %s: the plug-in threw: %s\n",
                   prepared.step.name.c_str(), e.what());
      code = Worse(code, kExitFailure);
    } catch (...) {
      std::fprintf(stderr, "kxhost: %s: the plug-in threw a non-standard "
                           "exception\n",
                   prepared.step.name.c_str());
      code = Worse(code, kExitFailure);
    }
  }
  return code;
}

}  // namespace kxhost
