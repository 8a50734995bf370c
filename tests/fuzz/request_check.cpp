#include "request_check.h"

#include <memory>
#include <string>

#include "fuzz_env.h"
#include "host/plugin_api.h"
#include "lib/runtime.h"
#include "networkconfig.h"

namespace kxfuzz {
namespace {

std::unique_ptr<Baseline> g_baseline;

int CountEvents(const std::vector<kxhost::HostEvent>& events,
                const std::string& kind) {
  int count = 0;
  for (const auto& event : events) count += event.kind == kind;
  return count;
}

}  // namespace

void StartPlugin() {
  ReexecWithNssWrapper();
  EnterFuzzSandbox();
  MakeJournal();
  NetworkConfig::Initialize();
  NetworkConfig::settings("KXActiveLDS", std::string("dc1.corp.example"));
  NetworkConfig::settings("KXDomainUser",
                          std::string("cn=kxbind,dc=corp,dc=example"));
  NetworkConfig::settings("KXDomainPassword", std::string("secret"));
  KXFUZZ_CHECK(plugin_init() == 0, "plugin_init failed");
  g_baseline = std::make_unique<Baseline>(std::vector<std::string>{
      "/opt/korvex/etc", "/opt/korvex/var", "/opt/korvex/usr"});
  kxhost::ClearEvents();
}

void RunRequest(const boost::shared_ptr<IXml>& document) {
  std::unique_ptr<char[]> command(document->GetCommand());
  parsed_xml_data_t request;
  request.xml = document;
  request.reply = XMLParserBoost::CreateEmptyXML();
  plugin_exec(&request);

  const auto events = kxhost::Events();
  const int sent = CountEvents(events, "send_message");
  const int released = CountEvents(events, "free_msg_memory");
  if (command) {
    KXFUZZ_CHECK(sent + released == 1,
                 "a request must end exactly once (sent " +
                     std::to_string(sent) + ", released " +
                     std::to_string(released) + ")");
  } else {
    KXFUZZ_CHECK(sent + released == 0, "a request without a command ended");
  }
  plugin_state_data_t state{};
  plugin_state(&state);
  KXFUZZ_CHECK(state.busy == 0, "busy after plugin_exec returned");
  if (sent == 1) {
    // Every handler attaches its answer under its own command name;
    // reset_policies answers with an empty reply.
    const std::string name = command.get();
    const bool reset = name == "reset_policies" || name == "reset_policy";
    KXFUZZ_CHECK(reset || request.reply->GetNode(name) != nullptr,
                 "the reply does not carry the command " + name);
  }
  kxhost::ClearEvents();

  if (g_baseline->Restore([] { kxhost::ResetState(); })) {
    kxhost::ResetState();
    KXFUZZ_CHECK(plugin_init() == 0, "plugin_init failed after a restore");
    kxhost::ClearEvents();
  }
}

}  // namespace kxfuzz
