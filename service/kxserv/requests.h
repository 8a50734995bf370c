// What the service does with one request document, and the documents it
// answers with (docs/protocol.md, "The service"). Everything that calls the
// plug-in runs on the worker thread.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>

#include "lib/plugin_loader.h"
#include "lib/xml_document.h"

namespace kxserv {

// The root element that marks a service-level request; any other root is a
// request for the plug-in.
constexpr const char* kServiceElement = "kxserv";

// What `state` reports besides the plug-in's busy flag.
struct ServiceStatus {
  int clients = 0;
  int subscribers = 0;
  std::uint64_t requests = 0;
  std::uint64_t refused = 0;
  bool station_blocked = false;
  std::string block_reason;
};

class ConsoleLogins;

// What a service request may use besides the plug-in. `logins` is touched
// on the worker thread only.
struct ServiceContext {
  ServiceStatus status;
  ConsoleLogins* logins = nullptr;
  int console_login_seconds = 300;
};

bool IsServiceRequest(const kxhost::XmlDocument& document);
// The command of a service request ("" when missing).
std::string ServiceCommand(kxhost::XmlDocument& document);

// `<reply><result>0</result><error_code>code</error_code>
// <error_desc>text</error_desc></reply>`.
std::string ErrorReply(const std::string& code, const std::string& text);

// plugin_exec with the document; the plug-in's reply document, or an
// "unanswered" error when it released the request without one. When the
// host's send_message event handed the printed reply to NoteSentReply on
// this thread during the call, that text is the answer; otherwise the reply
// document is printed here.
std::string RunPluginRequest(
    const kxhost::PluginEntryPoints& plugin,
    const boost::shared_ptr<kxhost::XmlDocument>& request);

// For the host's event observer: the reply text send_message printed for
// the request running on this thread.
void NoteSentReply(std::string text);

// policies, set-policies, import-policies, info, state, propose, simulate,
// console-login, console-redeem. (subscribe never reaches the worker.)
// Unknown commands get an "unknown_command" error.
std::string RunServiceRequest(const kxhost::PluginEntryPoints& plugin,
                              kxhost::XmlDocument& request,
                              const ServiceContext& context);

// Policy documents as the spool and the socket hand them over. Each returns
// the entry point's verdict and fills `why` with a one-line reason when it
// is false; `shown` receives the document the entry point filled.
bool SetPolicies(const kxhost::PluginEntryPoints& plugin,
                 boost::shared_ptr<IXml> document, std::string* why);
bool ImportPolicies(const kxhost::PluginEntryPoints& plugin,
                    const std::string& json, boost::shared_ptr<IXml> result,
                    std::string* why);

}  // namespace kxserv
