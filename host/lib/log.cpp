#include "host/log.h"

#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions/message.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/trivial.hpp>
#include <boost/make_shared.hpp>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "log_sink.h"
#include "runtime.h"

namespace kxhost {
namespace {

// Leaked on purpose: log lines may still arrive while other static objects
// are being destroyed at exit.
std::mutex& LogMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

// syslog(3) keeps the ident pointer, so the text must outlive every call.
std::string& OpenIdent() {
  static auto* ident = new std::string;
  return *ident;
}

void MirrorToStderr(const char* ident, const std::string& text) {
  char stamp[32] = "";
  const time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) != nullptr) {
    strftime(stamp, sizeof stamp, "%b %e %H:%M:%S", &local);
  }
  char host[256] = "localhost";
  if (gethostname(host, sizeof host) != 0) host[0] = '\0';
  host[sizeof host - 1] = '\0';
  std::fprintf(stderr, "%s %s %s[%d]: %s\n", stamp, host, ident,
               static_cast<int>(getpid()), text.c_str());
  std::fflush(stderr);
}

int PriorityOf(boost::log::trivial::severity_level level) {
  using boost::log::trivial::severity_level;
  switch (level) {
    case severity_level::fatal:
      return LOG_CRIT;
    case severity_level::error:
      return LOG_ERR;
    case severity_level::warning:
      return LOG_WARNING;
    case severity_level::info:
      return LOG_INFO;
    default:
      return LOG_DEBUG;
  }
}

// Carries the trivial logger's records (the plug-in's parse-error lines) to
// the host's log, so that they reach syslog and the observer like every
// other line.
class HostLogBackend : public boost::log::sinks::basic_sink_backend<
                           boost::log::sinks::synchronized_feeding> {
 public:
  void consume(const boost::log::record_view& record) {
    const auto level =
        boost::log::extract<boost::log::trivial::severity_level>(
            "Severity", record);
    const auto message =
        boost::log::extract<std::string>("Message", record);
    const int priority =
        level ? PriorityOf(level.get()) : static_cast<int>(LOG_INFO);
    WriteLogLine("trivial", 0, priority, LOG_DAEMON, "kxhost",
                 message ? message.get() : std::string());
  }
};

// Adding a sink at load time also switches Boost.Log's default console sink
// off: it only prints while the core has no sink at all.
struct BoostLogSinkInstaller {
  BoostLogSinkInstaller() {
    using Frontend = boost::log::sinks::synchronous_sink<HostLogBackend>;
    boost::log::core::get()->add_sink(
        boost::make_shared<Frontend>(boost::make_shared<HostLogBackend>()));
  }
};
const BoostLogSinkInstaller kInstallBoostLogSink;

}  // namespace

void WriteLogLine(const char* file, int line, int priority, int facility,
                  const char* ident, const std::string& text) {
  const std::string full = std::string(file != nullptr ? file : "?") + ":" +
                           std::to_string(line) + ": " + text;
  LogObserver observer;
  {
    std::lock_guard<std::mutex> lock(LogMutex());
    const std::string shown_ident =
        ident == nullptr || std::string(ident) == "kxhost"
            ? Options().host_ident
            : std::string(ident);
    if (OpenIdent() != shown_ident || OpenIdent().empty()) {
      OpenIdent() = shown_ident;
      openlog(OpenIdent().c_str(), LOG_PID | LOG_NDELAY, facility & LOG_FACMASK);
    }
    // The caller passes the facility already encoded (24 is LOG_DAEMON), so
    // it is joined with the priority as it is.
    syslog((facility & LOG_FACMASK) | (priority & LOG_PRIMASK), "%s",
           full.c_str());
    if (Options().mirror_to_stderr) {
      MirrorToStderr(shown_ident.c_str(), full);
    }
    observer = CurrentLogObserver();
  }
  // Called outside the lock so that an observer may itself log.
  if (observer) observer(priority, full);
}

}  // namespace kxhost

void log_message(const char* file, int line, int priority, int facility,
                 const char* ident, const char* format, ...) {
  if (format == nullptr) return;
  std::vector<char> buffer(512);
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int needed = std::vsnprintf(buffer.data(), buffer.size(), format, args);
  va_end(args);
  if (needed >= static_cast<int>(buffer.size())) {
    buffer.resize(static_cast<std::size_t>(needed) + 1);
    std::vsnprintf(buffer.data(), buffer.size(), format, again);
  }
  va_end(again);
  const std::string text = needed < 0 ? std::string(format) : buffer.data();
  kxhost::WriteLogLine(file, line, priority, facility, ident, text);
}

void log_trivial(int priority, const std::string& text) {
  if (priority <= LOG_CRIT) {
    BOOST_LOG_TRIVIAL(fatal) << text;
  } else if (priority == LOG_ERR) {
    BOOST_LOG_TRIVIAL(error) << text;
  } else if (priority == LOG_WARNING) {
    BOOST_LOG_TRIVIAL(warning) << text;
  } else if (priority < LOG_DEBUG) {
    BOOST_LOG_TRIVIAL(info) << text;
  } else {
    BOOST_LOG_TRIVIAL(debug) << text;
  }
}

void set_log_line_observer(LogLineObserver observer) {
  kxhost::SetLogObserver(std::move(observer));
}
