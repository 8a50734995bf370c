#include "runtime.h"

#include <fstream>
#include <mutex>
#include <utility>

#include "host/line_escape.h"
#include "host/policy_sources.h"
#include "host_events.h"
#include "log_sink.h"
#include "settings_db.h"

namespace kxhost {
namespace {

// The host's process-wide state. Leaked on purpose, like the log's: a plug-in
// may still log or send while static objects are destroyed at exit.
struct RuntimeState {
  std::mutex mutex;
  RuntimeOptions options;
  LogObserver observer;
  EventObserver event_observer;
  std::vector<HostEvent> events;
};

RuntimeState& State() {
  static auto* state = new RuntimeState;
  return *state;
}

}  // namespace

void Configure(const RuntimeOptions& options) {
  std::lock_guard<std::mutex> lock(State().mutex);
  State().options = options;
}

const RuntimeOptions& Options() { return State().options; }

void SetLogObserver(LogObserver observer) {
  std::lock_guard<std::mutex> lock(State().mutex);
  State().observer = std::move(observer);
}

LogObserver CurrentLogObserver() {
  std::lock_guard<std::mutex> lock(State().mutex);
  return State().observer;
}

std::vector<HostEvent> Events() {
  std::lock_guard<std::mutex> lock(State().mutex);
  return State().events;
}

void SetEventObserver(EventObserver observer) {
  std::lock_guard<std::mutex> lock(State().mutex);
  State().event_observer = std::move(observer);
}

void ClearEvents() {
  std::lock_guard<std::mutex> lock(State().mutex);
  State().events.clear();
}

namespace {
// Kept apart from RuntimeState; leaked for the same reason.
StatementObserver& StatementObserverSlot() {
  static auto* observer = new StatementObserver;
  return *observer;
}
}  // namespace

void SetStatementObserver(StatementObserver observer) {
  std::lock_guard<std::mutex> lock(State().mutex);
  StatementObserverSlot() = std::move(observer);
}

StatementObserver CurrentStatementObserver() {
  std::lock_guard<std::mutex> lock(State().mutex);
  return StatementObserverSlot();
}

// Declared in host_events.h.
void RecordEvent(const std::string& kind, std::vector<std::string> args) {
  std::string events_file;
  EventObserver observer;
  HostEvent event{kind, std::move(args)};
  {
    std::lock_guard<std::mutex> lock(State().mutex);
    if (State().options.keep_events) State().events.push_back(event);
    events_file = State().options.events_file;
    observer = State().event_observer;
  }
  if (!events_file.empty()) {
    // Built only for the file: a reply of thousands of elements is escaped
    // for nothing when nobody keeps the line.
    std::string line = kxtext::EscapeLine(event.kind);
    for (const auto& arg : event.args) line += "\t" + kxtext::EscapeLine(arg);
    std::ofstream out(events_file, std::ios::app);
    out << line << '\n';
    out.flush();
    if (!out) {
      WriteLogLine("runtime", __LINE__, 3, 24, "kxhost",
                   "cannot append to the events file " + events_file);
    }
  }
  if (observer) observer(event);
}

void ResetState() {
  CloseSettingsDb();
  AecPolicySources::Get()->ReadConfig();
}

}  // namespace kxhost
