// Each service is logged and recorded as a host event (kept in memory and
// appended to the events file when configured). kxhost has no clients, user
// sessions or station lock, so that is all it does; kxserv receives every
// event through the runtime's event observer and carries it to its
// subscribers, to users' terminals and to the station-block file.
#include "host/host_services.h"

#include <memory>
#include <string>
#include <vector>

#include "host/log.h"
#include "host_events.h"

namespace {

constexpr const char* kLogFile = "host_services";
constexpr const char* kIdent = "kxhost";
constexpr int kFacility = 24;

std::string CommandOf(parsed_xml_data_t* request) {
  if (!request->xml) return std::string();
  std::unique_ptr<char[]> command(request->xml->GetCommand());
  return command ? std::string(command.get()) : std::string();
}

}  // namespace

void send_message(int kind, parsed_xml_data_t* request) {
  if (request == nullptr) {
    log_message(kLogFile, __LINE__, 3, kFacility, kIdent,
                "send_message: got NULL request");
    return;
  }
  const std::string command = CommandOf(request);
  const std::string reply =
      request->reply ? request->reply->ToString("reply") : std::string();
  request->outcome = 1;
  log_message(kLogFile, __LINE__, 6, kFacility, kIdent,
              "send_message: reply %d to '%s'", kind, command.c_str());
  kxhost::RecordEvent("send_message", {std::to_string(kind), command, reply});
}

void free_msg_memory(parsed_xml_data_t* request) {
  if (request == nullptr) {
    log_message(kLogFile, __LINE__, 3, kFacility, kIdent,
                "free_msg_memory: got NULL request");
    return;
  }
  const std::string command = CommandOf(request);
  request->outcome = 2;
  log_message(kLogFile, __LINE__, 6, kFacility, kIdent,
              "free_msg_memory: '%s' released without a reply",
              command.c_str());
  kxhost::RecordEvent("free_msg_memory", {command});
}

void update_clients(const std::string& plugin) {
  log_message(kLogFile, __LINE__, 6, kFacility, kIdent,
              "update_clients: policies of '%s' changed", plugin.c_str());
  kxhost::RecordEvent("update_clients", {plugin});
}

void send_notify_systemwide(const std::string& title, const std::string& text) {
  log_message(kLogFile, __LINE__, 6, kFacility, kIdent,
              "send_notify_systemwide: %s: %s", title.c_str(), text.c_str());
  kxhost::RecordEvent("send_notify_systemwide", {title, text});
}

void block_station(const std::string& reason, bool flag) {
  log_message(kLogFile, __LINE__, 2, kFacility, kIdent,
              "block_station: %s (%d)", reason.c_str(), flag ? 1 : 0);
  kxhost::RecordEvent("block_station", {reason, flag ? "1" : "0"});
}
