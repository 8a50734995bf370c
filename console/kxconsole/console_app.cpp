#include "console_app.h"

#include <dirent.h>

#include <ctime>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kxconsole {
namespace {

const char kCsp[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; "
    "img-src 'self'; connect-src 'self'; form-action 'self'; "
    "frame-ancestors 'none'; base-uri 'none'";

// Route -> page file. Pages need a session; welcome.html does not.
const std::map<std::string, std::string>& PageFiles() {
  static const std::map<std::string, std::string> pages = {
      {"/", "overview.html"},       {"/rules", "rules.html"},
      {"/lists", "lists.html"},     {"/control", "control.html"},
      {"/journal", "journal.html"}, {"/learning", "learning.html"},
  };
  return pages;
}

// Content types by extension; an asset of any other kind is not served.
const char* ContentType(const std::string& name) {
  static const std::map<std::string, const char*> types = {
      {".html", "text/html; charset=utf-8"},
      {".js", "text/javascript; charset=utf-8"},
      {".css", "text/css; charset=utf-8"},
      {".svg", "image/svg+xml"},
      {".png", "image/png"},
      {".ico", "image/x-icon"},
      {".txt", "text/plain; charset=utf-8"},
  };
  const auto dot = name.rfind('.');
  if (dot == std::string::npos) return nullptr;
  const auto it = types.find(name.substr(dot));
  return it == types.end() ? nullptr : it->second;
}

// Plain names only: nothing that could step out of the directory or hide.
bool PlainName(const std::string& name) {
  if (name.empty() || name[0] == '.') return false;
  for (const char c : name) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                    (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.';
    if (!ok) return false;
  }
  return true;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Percent-decoding of a query component ('+' is a space). False for a
// broken escape.
bool Decode(const std::string& in, std::string* out) {
  out->clear();
  for (std::size_t i = 0; i < in.size(); ++i) {
    if (in[i] == '+') {
      *out += ' ';
    } else if (in[i] == '%') {
      if (i + 2 >= in.size()) return false;
      const int high = HexDigit(in[i + 1]), low = HexDigit(in[i + 2]);
      if (high < 0 || low < 0) return false;
      *out += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      *out += in[i];
    }
  }
  return true;
}

bool ParseQuery(const std::string& text,
                std::map<std::string, std::string>* query) {
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('&', start);
    if (end == std::string::npos) end = text.size();
    const std::string pair = text.substr(start, end - start);
    start = end + 1;
    if (pair.empty()) continue;
    const auto eq = pair.find('=');
    std::string key, value;
    if (!Decode(pair.substr(0, eq), &key)) return false;
    if (eq != std::string::npos && !Decode(pair.substr(eq + 1), &value)) {
      return false;
    }
    (*query)[key] = value;
  }
  return true;
}

std::int64_t Now() { return static_cast<std::int64_t>(std::time(nullptr)); }

// Compares in time independent of where the texts differ, so that a
// token cannot be guessed byte by byte from response times.
bool SameSecret(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  unsigned char diff = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    diff |= static_cast<unsigned char>(a[i] ^ b[i]);
  }
  return diff == 0;
}

bool IsStateChanging(http::verb verb) {
  return verb == http::verb::post || verb == http::verb::put ||
         verb == http::verb::delete_ || verb == http::verb::patch;
}

}  // namespace

void AddSecurityHeaders(Response* response) {
  response->set("Content-Security-Policy", kCsp);
  response->set("X-Content-Type-Options", "nosniff");
  response->set("Referrer-Policy", "no-referrer");
  response->set(http::field::cache_control, "no-store");
  response->set("X-Frame-Options", "DENY");
}

Response ApiError(http::status status, const std::string& code,
                  const std::string& message, unsigned version) {
  Response response(status, version);
  response.set(http::field::content_type, "application/json");
  response.body() =
      JsonObject().Str("error", code).Str("message", message).str();
  response.prepare_payload();
  AddSecurityHeaders(&response);
  return response;
}

ConsoleApp::ConsoleApp(AppSettings settings)
    : settings_(std::move(settings)),
      client_(settings_.socket_path, settings_.service_timeout_ms),
      sessions_(static_cast<std::int64_t>(settings_.config.session_minutes) *
                60) {
  DIR* dir = opendir(settings_.assets_dir.c_str());
  if (dir == nullptr) {
    throw std::runtime_error("cannot read the assets directory " +
                             settings_.assets_dir);
  }
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    const char* type = ContentType(name);
    if (PlainName(name) && type != nullptr) assets_[name] = type;
  }
  closedir(dir);

  api_ = {
      {{"GET", "/api/session"}, &ConsoleApp::GetSession},
      {{"POST", "/api/logout"}, &ConsoleApp::Logout},
      {{"GET", "/api/overview"}, &ConsoleApp::GetOverview},
      {{"GET", "/api/rules"}, &ConsoleApp::GetRules},
      {{"POST", "/api/rules/add"}, &ConsoleApp::AddRule},
      {{"POST", "/api/rules/edit"}, &ConsoleApp::EditRule},
      {{"POST", "/api/rules/remove"}, &ConsoleApp::RemoveRule},
      {{"POST", "/api/rules/export"}, &ConsoleApp::ExportRule},
      {{"GET", "/api/lists"}, &ConsoleApp::GetLists},
      {{"POST", "/api/whitelist"}, &ConsoleApp::SetWhitelist},
      {{"POST", "/api/exceptions"}, &ConsoleApp::SetExceptions},
      {{"GET", "/api/control"}, &ConsoleApp::GetControl},
      {{"POST", "/api/control"}, &ConsoleApp::SetControl},
      {{"POST", "/api/control/confirm"}, &ConsoleApp::Confirm},
      {{"GET", "/api/journal"}, &ConsoleApp::GetJournal},
      {{"GET", "/api/journal.csv"}, &ConsoleApp::GetJournalCsv},
      {{"GET", "/api/journal/chart"}, &ConsoleApp::GetJournalChart},
      {{"GET", "/api/learning/proposals"}, &ConsoleApp::GetProposals},
      {{"POST", "/api/learning/accept"}, &ConsoleApp::AcceptProposal},
      {{"GET", "/api/learning/whatif"}, &ConsoleApp::GetWhatIf},
  };
}

Response ConsoleApp::Handle(const Request& request, bool tls) {
  Response response;
  try {
    response = Route(request, tls);
  } catch (const ServiceUnreachable& e) {
    Log(e.what());
    response = ApiError(http::status::service_unavailable,
                        "service_unreachable", e.what(), request.version());
  } catch (const std::exception& e) {
    Log(std::string("internal error: ") + e.what());
    response = ApiError(http::status::internal_server_error, "internal",
                        e.what(), request.version());
  }
  response.keep_alive(request.keep_alive());
  AddSecurityHeaders(&response);
  return response;
}

Response ConsoleApp::Page(http::status status, const std::string& title,
                          const std::string& text, unsigned version) {
  Response response(status, version);
  response.set(http::field::content_type, "text/html; charset=utf-8");
  response.body() =
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
      "<title>" +
      XmlEscape(title) + "</title>" +
      (assets_.count("app.css")
           ? "<link rel=\"stylesheet\" href=\"/assets/app.css\">"
           : "") +
      "</head><body data-page=\"message\"><main><h1>" + XmlEscape(title) +
      "</h1><p>" + XmlEscape(text) + "</p></main></body></html>\n";
  response.prepare_payload();
  return response;
}

Response ConsoleApp::ServeFile(const std::string& name, unsigned version) {
  const auto it = assets_.find(name);
  if (it == assets_.end()) {
    return Page(http::status::not_found, "Not found", "There is no such page.",
                version);
  }
  std::ifstream in(settings_.assets_dir + "/" + name, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  if (!in) {
    return Page(http::status::not_found, "Not found", "There is no such page.",
                version);
  }
  Response response(http::status::ok, version);
  response.set(http::field::content_type, it->second);
  response.body() = content.str();
  response.prepare_payload();
  return response;
}

std::string ConsoleApp::CookieFor(const std::string& id, bool tls) const {
  return "kxsession=" + id + "; HttpOnly; SameSite=Strict; Path=/; Max-Age=" +
         std::to_string(sessions_.idle_seconds()) + (tls ? "; Secure" : "");
}

std::string ConsoleApp::SessionCookie(const Request& request) const {
  for (auto it = request.find(http::field::cookie);
       it != request.end() && it->name() == http::field::cookie; ++it) {
    const std::string header(it->value());
    std::size_t at = 0;
    while (at < header.size()) {
      std::size_t end = header.find(';', at);
      if (end == std::string::npos) end = header.size();
      std::string pair = header.substr(at, end - at);
      at = end + 1;
      const auto first = pair.find_first_not_of(' ');
      if (first == std::string::npos) continue;
      pair = pair.substr(first);
      if (pair.compare(0, 10, "kxsession=") == 0) return pair.substr(10);
    }
  }
  return "";
}

Response ConsoleApp::Login(const Request& request, const std::string& token,
                           bool tls) {
  const unsigned version = request.version();
  bool valid = token.size() == 64 &&
               token.find_first_not_of("0123456789abcdef") == std::string::npos;
  if (valid) {
    try {
      const auto reply = Ask("<kxserv command=\"console-redeem\" token=\"" +
                             XmlEscape(token) + "\"/>");
      valid = reply.get<std::string>("result", "") == "1";
    } catch (const ServiceUnreachable& e) {
      Log(e.what());
      return Page(http::status::service_unavailable, "Login not possible",
                  std::string(e.what()) +
                      ". The link stays valid until it "
                      "expires: open it again when the service runs.",
                  version);
    }
  }
  if (!valid) {
    Log("refused a login link that is not valid");
    return Page(http::status::forbidden, "Login refused",
                "This login link is not valid: it was used already, has "
                "expired or was never issued. Run kxctl console-login for a "
                "new one.",
                version);
  }
  const std::string id = sessions_.Open(Now());
  Log("opened a console session");
  Response response(http::status::see_other, version);
  response.set(http::field::location, "/");
  response.set(http::field::set_cookie, CookieFor(id, tls));
  response.prepare_payload();
  return response;
}

Response ConsoleApp::Route(const Request& request, bool tls) {
  const unsigned version = request.version();
  const std::string target(request.target());
  const auto mark = target.find('?');
  const std::string path = target.substr(0, mark);
  std::map<std::string, std::string> query;
  const bool query_ok =
      mark == std::string::npos || ParseQuery(target.substr(mark + 1), &query);
  const bool is_api = path.compare(0, 5, "/api/") == 0;
  if (!query_ok) {
    return is_api ? ApiError(http::status::bad_request, "bad_request",
                             "The query string is malformed.", version)
                  : Page(http::status::bad_request, "Bad request",
                         "The query string is malformed.", version);
  }
  const bool reading = request.method() == http::verb::get ||
                       request.method() == http::verb::head;

  if (!is_api) {
    if (!reading) {
      return Page(http::status::method_not_allowed, "Not allowed",
                  "Pages are only read.", version);
    }
    if (path.compare(0, 8, "/assets/") == 0) {
      const std::string name = path.substr(8);
      if (!PlainName(name) || name.find(".html") != std::string::npos) {
        return Page(http::status::not_found, "Not found",
                    "There is no such page.", version);
      }
      return ServeFile(name, version);
    }
    if (path == "/welcome") return ServeFile("welcome.html", version);
    if (path == "/login") return Login(request, query["token"], tls);
    const auto page = PageFiles().find(path);
    if (page == PageFiles().end()) {
      return Page(http::status::not_found, "Not found",
                  "There is no such page.", version);
    }
    Sessions::Session session;
    const std::string id = SessionCookie(request);
    if (!sessions_.Touch(id, Now(), &session)) {
      Response response(http::status::see_other, version);
      response.set(http::field::location, "/welcome");
      response.prepare_payload();
      return response;
    }
    Response response = ServeFile(page->second, version);
    // The browser's copy of the cookie lives as long as the session would
    // from now, so a console in use is not logged out by the cookie's age.
    response.set(http::field::set_cookie, CookieFor(id, tls));
    return response;
  }

  Call call{request, path, std::move(query), SessionCookie(request), {}, {}};
  return Api(call, tls);
}

Response ConsoleApp::Api(Call& call, bool tls) {
  const unsigned version = call.request.version();
  const std::string method(call.request.method_string());
  const auto handler = api_.find({method, call.path});
  if (handler == api_.end()) {
    bool known = false;
    for (const auto& route : api_) known |= route.first.second == call.path;
    return known ? ApiError(http::status::method_not_allowed,
                            "method_not_allowed",
                            method + " is not allowed on " + call.path, version)
                 : ApiError(http::status::not_found, "not_found",
                            "No such API route: " + call.path, version);
  }
  if (!sessions_.Touch(call.session_id, Now(), &call.session)) {
    return ApiError(http::status::unauthorized, "not_logged_in",
                    "No session: open a link from kxctl console-login.",
                    version);
  }
  if (IsStateChanging(call.request.method())) {
    const std::string csrf(call.request["X-CSRF-Token"]);
    if (csrf.empty() || !SameSecret(csrf, call.session.csrf)) {
      Log("refused " + method + " " + call.path +
          ": CSRF token missing or wrong");
      return ApiError(http::status::forbidden, "csrf",
                      "The request lacks the session's CSRF token.", version);
    }
    const std::string& body = call.request.body();
    if (body.find_first_not_of(" \t\r\n") != std::string::npos) {
      try {
        call.body = ParseJson(body);
      } catch (const JsonError& e) {
        return ApiError(http::status::bad_request, "bad_request", e.what(),
                        version);
      }
    } else {
      call.body.type = JsonValue::Type::kObject;
    }
    if (call.body.type != JsonValue::Type::kObject) {
      return ApiError(http::status::bad_request, "bad_request",
                      "The body must be a JSON object.", version);
    }
  }
  (void)tls;
  try {
    return (this->*(handler->second))(call);
  } catch (const JsonError& e) {
    return ApiError(http::status::bad_request, "bad_request", e.what(),
                    version);
  }
}

Response ConsoleApp::GetSession(Call& call) {
  return Ok(
      JsonObject()
          .Str("csrf", call.session.csrf)
          .Int("expires", call.session.last_used + sessions_.idle_seconds())
          .str(),
      call);
}

Response ConsoleApp::Logout(Call& call) {
  sessions_.Close(call.session_id);
  Response response = Ok("{}", call);
  response.set(http::field::set_cookie,
               "kxsession=; HttpOnly; SameSite=Strict; Path=/; Max-Age=0");
  return response;
}

Response ConsoleApp::Ok(const std::string& json, const Call& call) const {
  Response response(http::status::ok, call.request.version());
  response.set(http::field::content_type, "application/json");
  response.body() = json;
  response.prepare_payload();
  return response;
}

Response ConsoleApp::Rejected(const std::string& message,
                              const Call& call) const {
  return ApiError(http::status::unprocessable_entity, "rejected", message,
                  call.request.version());
}

}  // namespace kxconsole
