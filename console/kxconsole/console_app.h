// The console's request handling, independent of sockets and TLS: one HTTP
// request in, one response out. Pages and assets come from the assets
// directory, the API speaks to kxserv (a new connection per request) and
// reads the journal read-only. Safe to call from several threads at once.
#pragma once

#include <boost/beast/http.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "common/console_config.h"
#include "json.h"
#include "service_client.h"
#include "sessions.h"

namespace kxconsole {

namespace http = boost::beast::http;
using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;

struct AppSettings {
  std::string socket_path;   // kxserv's socket
  std::string journal_path;  // the audit journal (SQLite)
  std::string assets_dir;    // pages, scripts, styles
  std::string status_path;   // kxaecd's status file
  // The plug-in's exceptions file: only whether it exists is read, since
  // the plug-in answers the same error for a missing and a broken file.
  std::string exceptions_path;
  kxserv::ConsoleConfig config;
  int service_timeout_ms = 30000;
};

// Headers every response carries, pages, API and errors alike.
void AddSecurityHeaders(Response* response);
// A JSON error body {"error":code,"message":text} with its status.
Response ApiError(http::status status, const std::string& code,
                  const std::string& message, unsigned version = 11);

class ConsoleApp {
 public:
  // Reads the names of the files in the assets directory once: only those
  // names are ever served. Throws std::runtime_error when the directory
  // cannot be read.
  explicit ConsoleApp(AppSettings settings);

  Response Handle(const Request& request, bool tls);

  // The logger for one line about a request or a failure (may be empty).
  void set_logger(std::function<void(const std::string&)> log) {
    log_ = std::move(log);
  }

 private:
  struct Call {
    const Request& request;
    std::string path;
    std::map<std::string, std::string> query;
    std::string session_id;
    Sessions::Session session;
    JsonValue body;
  };
  using Handler = Response (ConsoleApp::*)(Call&);

  Response Route(const Request& request, bool tls);
  Response ServeFile(const std::string& name, unsigned version);
  Response Page(http::status status, const std::string& title,
                const std::string& text, unsigned version);
  Response Login(const Request& request, const std::string& token, bool tls);
  Response Api(Call& call, bool tls);
  std::string SessionCookie(const Request& request) const;
  // The Set-Cookie value of session `id`.
  std::string CookieFor(const std::string& id, bool tls) const;
  void Log(const std::string& line) const {
    if (log_) log_(line);
  }

  // Plug-in and service requests.
  boost::property_tree::ptree Ask(const std::string& request) const {
    return client_.Ask(request);
  }
  Response Rejected(const std::string& message, const Call& call) const;
  Response Ok(const std::string& json, const Call& call) const;
  bool NoExceptionsFile(const boost::property_tree::ptree& section) const;
  Response Done(const boost::property_tree::ptree& reply,
                const std::string& section, const Call& call) const;

  Response GetSession(Call& call);
  Response Logout(Call& call);
  Response GetOverview(Call& call);
  Response GetRules(Call& call);
  Response AddRule(Call& call);
  Response EditRule(Call& call);
  Response RemoveRule(Call& call);
  Response ExportRule(Call& call);
  Response GetLists(Call& call);
  Response SetWhitelist(Call& call);
  Response SetExceptions(Call& call);
  Response GetControl(Call& call);
  Response SetControl(Call& call);
  Response Confirm(Call& call);
  Response GetJournal(Call& call);
  Response GetJournalCsv(Call& call);
  Response GetJournalChart(Call& call);
  Response GetProposals(Call& call);
  Response AcceptProposal(Call& call);
  Response GetWhatIf(Call& call);

  AppSettings settings_;
  ServiceClient client_;
  Sessions sessions_;
  std::map<std::string, std::string> assets_;  // name -> content type
  std::map<std::pair<std::string, std::string>, Handler> api_;
  std::function<void(const std::string&)> log_;
};

}  // namespace kxconsole
