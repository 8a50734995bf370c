// The JSON API: each route turns into the requests any other client of
// kxserv would send (plug-in commands, service commands, policies), so the
// console can do nothing a client of the socket could not.
#include <sys/stat.h>

#include <cerrno>
#include <ctime>
#include <fstream>
#include <sstream>

#include "console_app.h"

#include "journal/journal_query.h"

namespace kxconsole {
namespace {

using boost::property_tree::ptree;

const ptree* Child(const ptree& node, const std::string& name) {
  const auto it = node.find(name);
  return it == node.not_found() ? nullptr : &it->second;
}

std::string Text(const ptree& node, const std::string& name) {
  const ptree* child = Child(node, name);
  return child ? child->data() : "";
}

std::vector<std::string> Texts(const ptree& node, const std::string& name) {
  std::vector<std::string> out;
  for (const auto& child : node) {
    if (child.first == name) out.push_back(child.second.data());
  }
  return out;
}

// Every error_desc of a part whose result is not "1", depth first.
void CollectFailures(const ptree& node, std::vector<std::string>* out) {
  const ptree* result = Child(node, "result");
  if (result != nullptr && result->data() != "1") {
    std::string desc = Text(node, "error_desc");
    out->push_back(desc.empty() ? "The plug-in refused the request." : desc);
  }
  for (const auto& child : node) {
    if (!child.first.empty() && child.first[0] != '<') {
      CollectFailures(child.second, out);
    }
  }
}

// Why a run of the tool through the service failed: its error, else what the
// tool itself printed, else `fallback`.
std::string ToolRunFailure(const ptree& reply, const char* fallback) {
  std::string message = Text(reply, "error_desc");
  if (message.empty()) message = Text(reply, "messages");
  return message.empty() ? fallback : message;
}

std::string Join(const std::vector<std::string>& parts) {
  std::string out;
  for (const auto& part : parts) out += (out.empty() ? "" : "; ") + part;
  return out;
}

std::string Items(const std::string& tag,
                  const std::vector<std::string>& values) {
  std::string out;
  for (const auto& value : values) {
    out += "<" + tag + ">" + XmlEscape(value) + "</" + tag + ">";
  }
  return out;
}

std::string RequiredName(const JsonValue& body, const std::string& key) {
  const std::string name = body.GetString(key);
  if (name.empty()) throw JsonError("the field \"" + key + "\" is required");
  return name;
}

// The value of policy `name` of group "aec" in a `policies` reply.
std::string PolicyValue(const ptree& reply, const std::string& name) {
  const ptree* policies = Child(reply, "policies");
  if (policies == nullptr) return "";
  for (const auto& policy : *policies) {
    if (policy.first != "policy") continue;
    if (policy.second.get<std::string>("<xmlattr>.name", "") != name) continue;
    const std::string group =
        policy.second.get<std::string>("<xmlattr>.group", "");
    if (!group.empty() && group != "aec") continue;
    const ptree* value = Child(policy.second, "type");
    if (value == nullptr) value = Child(policy.second, "value");
    return value ? value->data() : "";
  }
  return "";
}

int ZeroOrOne(const std::string& text) { return text == "1" ? 1 : 0; }

// Where hard mode's confirmation stands, as the pages show it: nothing to
// confirm, switched on and not confirmed yet (requested), still not
// confirmed after a reboot (waiting: the next reboot refuses it), confirmed.
std::string Phase(int state, int mode, int confirmation) {
  if (state != 1 || mode != 1) return "none";
  switch (confirmation) {
    case 1:
      return "requested";
    case 0:
      return "waiting";
    case 2:
      return "confirmed";
    default:
      return "none";
  }
}

bool ParseNumber(const std::string& text, std::int64_t* value) {
  if (text.empty() || text.size() > 18 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  *value = std::stoll(text);
  return true;
}

// The since/until pair of a query, checked; "" when absent.
std::string PeriodAttributes(const std::map<std::string, std::string>& query) {
  std::string out;
  for (const char* key : {"since", "until"}) {
    const auto it = query.find(key);
    if (it == query.end() || it->second.empty()) continue;
    std::int64_t value;
    if (!ParseNumber(it->second, &value)) {
      throw JsonError(std::string("\"") + key +
                      "\" must be whole seconds since the epoch");
    }
    out += std::string(" ") + key + "=\"" + it->second + "\"";
  }
  return out;
}

// The JSON objects of a learning report, each as written.
std::vector<std::string> ReportObjects(const std::string& report) {
  std::vector<std::string> objects;
  int depth = 0;
  bool in_string = false, escaped = false;
  std::size_t start = 0;
  for (std::size_t i = 0; i < report.size(); ++i) {
    const char c = report[i];
    if (in_string) {
      if (escaped)
        escaped = false;
      else if (c == '\\')
        escaped = true;
      else if (c == '"')
        in_string = false;
      continue;
    }
    if (c == '"' && depth > 0)
      in_string = true;
    else if (c == '{') {
      if (depth++ == 0) start = i;
    } else if (c == '}' && depth > 0 && --depth == 0) {
      objects.push_back(report.substr(start, i - start + 1));
    }
  }
  return objects;
}

// A list in the rule file format: an array, or "" for an empty one.
std::vector<std::string> RuleList(const JsonValue& rule,
                                  const std::string& key) {
  const JsonValue* list = rule.Find(key);
  if (list == nullptr || list->type == JsonValue::Type::kString) return {};
  return rule.GetStrings(key);
}

std::string EngineDetail(const std::string& status_path, bool* running) {
  struct stat info;
  *running = false;
  if (stat(status_path.c_str(), &info) != 0) {
    return "kxaecd is not running (no status file " + status_path + ")";
  }
  const std::int64_t age =
      static_cast<std::int64_t>(std::time(nullptr)) - info.st_mtime;
  // kxaecd rewrites its status every second; a stale file is a stopped one.
  if (age > 5) {
    return "kxaecd is not running (status last written " + std::to_string(age) +
           " s ago)";
  }
  *running = true;
  std::ifstream in(status_path);
  std::string line, detail;
  for (int i = 0; i < 3 && std::getline(in, line); ++i) {
    detail += (detail.empty() ? "" : ", ") + line;
  }
  return detail.empty() ? "kxaecd is running" : detail;
}

JournalFilter FilterOf(const std::map<std::string, std::string>& query) {
  JournalFilter filter;
  auto get = [&](const char* key) {
    const auto it = query.find(key);
    return it == query.end() ? std::string() : it->second;
  };
  std::int64_t n;
  for (const char* key : {"since", "until"}) {
    const std::string text = get(key);
    if (text.empty()) continue;
    if (!ParseNumber(text, &n)) {
      throw JsonError(std::string("\"") + key +
                      "\" must be whole seconds since the epoch");
    }
    (std::string(key) == "since" ? filter.since : filter.until) = n;
  }
  // The journal library refuses these too; checked here so that a bad
  // filter is the client's 400 and a JournalError means the journal itself.
  constexpr std::int64_t kLastTime = 253402300799;  // 9999-12-31
  if ((filter.since && *filter.since > kLastTime) ||
      (filter.until && *filter.until > kLastTime)) {
    throw JsonError("times must be before the year 10000");
  }
  if (filter.since && filter.until && *filter.since > *filter.until) {
    throw JsonError("\"since\" must not be after \"until\"");
  }
  filter.event = get("event");
  if (filter.event != "" && filter.event != "exec" &&
      filter.event != "library" && filter.event != "file") {
    throw JsonError("\"event\" must be exec, library or file");
  }
  filter.outcome = get("outcome");
  if (filter.outcome != "" && filter.outcome != "allowed" &&
      filter.outcome != "denied") {
    throw JsonError("\"outcome\" must be allowed or denied");
  }
  filter.user = get("user");
  filter.group = get("group");
  filter.program = get("program");
  if (!get("page").empty()) {
    if (!ParseNumber(get("page"), &n) || n < 1 || n > 1000000000) {
      throw JsonError("\"page\" must be a number from 1");
    }
    filter.page = static_cast<int>(n);
  }
  if (!get("per_page").empty()) {
    if (!ParseNumber(get("per_page"), &n) || n < 1 || n > 500) {
      throw JsonError("\"per_page\" must be a number from 1 to 500");
    }
    filter.per_page = static_cast<int>(n);
  }
  return filter;
}

bool FileExists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

}  // namespace

// A failed exceptions section because the file was never written: that is
// an empty list (the plug-in starts without exceptions then), not an error.
bool ConsoleApp::NoExceptionsFile(const ptree& section) const {
  struct stat info;
  return Text(section, "result") != "1" &&
         stat(settings_.exceptions_path.c_str(), &info) != 0 && errno == ENOENT;
}

Response ConsoleApp::Done(const ptree& reply, const std::string& section,
                          const Call& call) const {
  if (!Text(reply, "error_code").empty()) {
    return Rejected(Text(reply, "error_desc"), call);
  }
  const ptree* part = Child(reply, section);
  if (part == nullptr) {
    return Rejected("The plug-in gave no answer to " + section + ".", call);
  }
  std::vector<std::string> failures;
  CollectFailures(*part, &failures);
  if (!failures.empty()) return Rejected(Join(failures), call);
  return Ok("{\"result\":1}", call);
}

Response ConsoleApp::GetOverview(Call& call) {
  const ptree policies = Ask("<kxserv command=\"policies\"/>");
  const ptree status = Ask("<request command=\"status_confirmation\"/>");
  const ptree rules = Ask("<request command=\"get\"><rule/></request>");
  const ptree* confirmation = Child(status, "status_confirmation");
  std::int64_t count = 0, system = 0;
  if (const ptree* section = rules.get_child_optional("get.rules").get_ptr()) {
    for (const auto& rule : *section) {
      if (rule.first != "rule") continue;
      ++count;
      if (Text(rule.second, "system") == "1") ++system;
    }
  }
  std::int64_t hour = 0, day = 0;
  if (FileExists(settings_.journal_path)) {
    const std::int64_t now = static_cast<std::int64_t>(std::time(nullptr));
    try {
      hour = CountDenials(settings_.journal_path, now - 3600, now);
      day = CountDenials(settings_.journal_path, now - 86400, now);
    } catch (const JournalError& e) {
      Log(std::string("journal: ") + e.what());
    }
  }
  bool running = false;
  const std::string detail = EngineDetail(settings_.status_path, &running);
  const std::string confirmation_state =
      confirmation ? Text(*confirmation, "state") : "";
  return Ok(
      JsonObject()
          .Int("state", ZeroOrOne(PolicyValue(policies, "state")))
          .Int("mode", ZeroOrOne(PolicyValue(policies, "mode")))
          .Raw("confirmation",
               JsonObject()
                   .Int("state", confirmation_state.empty()
                                     ? -1
                                     : std::stoll(confirmation_state))
                   .Str("description",
                        confirmation ? Text(*confirmation, "description") : "")
                   .str())
          .Int("rules", count)
          .Int("system_rules", system)
          .Int("denials_hour", hour)
          .Int("denials_day", day)
          .Raw(
              "engine",
              JsonObject().Bool("running", running).Str("detail", detail).str())
          .str(),
      call);
}

Response ConsoleApp::GetRules(Call& call) {
  const ptree reply =
      Ask("<request command=\"get\" rule_resource=\"1\"><rule/></request>");
  const ptree* section = reply.get_child_optional("get.rules").get_ptr();
  if (section == nullptr) {
    const std::string desc = Text(reply, "error_desc");
    return Rejected(
        desc.empty() ? "The plug-in could not list the rules." : desc, call);
  }
  if (Text(*section, "result") != "1") {
    return Rejected(Text(*section, "error_desc"), call);
  }
  std::string rules = "[";
  for (const auto& rule : *section) {
    if (rule.first != "rule") continue;
    const ptree& r = rule.second;
    if (rules.size() > 1) rules += ",";
    rules += JsonObject()
                 .Str("name", Text(r, "name"))
                 .Bool("enabled", Text(r, "enable") == "1")
                 .Bool("all", Text(r, "all") == "1")
                 .Bool("extended", Text(r, "extended") == "1")
                 .Bool("system", Text(r, "system") == "1")
                 .Strings("users", Texts(r, "u"))
                 .Strings("groups", Texts(r, "g"))
                 .Strings("resources", Texts(r, "r"))
                 .str();
  }
  return Ok("{\"rules\":" + rules + "]}", call);
}

Response ConsoleApp::AddRule(Call& call) {
  const std::string name = RequiredName(call.body, "name");
  const auto users = call.body.GetStrings("users");
  const auto groups = call.body.GetStrings("groups");
  const auto resources = call.body.GetStrings("resources");
  const bool all = call.body.GetBool("all", false);
  Response response =
      Done(Ask("<request command=\"add\"><rule name=\"" + XmlEscape(name) +
               "\">" + (all ? "" : Items("u", users) + Items("g", groups)) +
               Items("r", resources) + "</rule></request>"),
           "add", call);
  if (!all || response.result() != http::status::ok) return response;
  // The add command has no "all users" switch; the edit's update has.
  return Done(Ask("<request command=\"edit\"><rule name=\"" + XmlEscape(name) +
                  "\"><update all-users=\"1\">" + Items("r", resources) +
                  "</update></rule></request>"),
              "edit", call);
}

Response ConsoleApp::EditRule(Call& call) {
  const std::string name = RequiredName(call.body, "name");
  std::string attributes = " name=\"" + XmlEscape(name) + "\"";
  if (call.body.Has("enabled")) {
    attributes +=
        call.body.GetBool("enabled", true) ? " state=\"1\"" : " state=\"0\"";
  }
  if (call.body.Has("rename")) {
    attributes +=
        " rename=\"" + XmlEscape(RequiredName(call.body, "rename")) + "\"";
  }
  std::string parts;
  for (const char* key : {"add", "remove"}) {
    const JsonValue* change = call.body.Find(key);
    if (change == nullptr) continue;
    if (change->type != JsonValue::Type::kObject) {
      throw JsonError(std::string("\"") + key + "\" must be an object");
    }
    parts += std::string("<") + key + ">" +
             Items("u", change->GetStrings("users")) +
             Items("g", change->GetStrings("groups")) +
             Items("r", change->GetStrings("resources")) + "</" + key + ">";
  }
  return Done(Ask("<request command=\"edit\"><rule" + attributes + ">" + parts +
                  "</rule></request>"),
              "edit", call);
}

Response ConsoleApp::RemoveRule(Call& call) {
  const std::string name = RequiredName(call.body, "name");
  return Done(Ask("<request command=\"remove\"><rule><name>" + XmlEscape(name) +
                  "</name></rule></request>"),
              "remove", call);
}

Response ConsoleApp::ExportRule(Call& call) {
  const std::string name = RequiredName(call.body, "name");
  const std::string file = RequiredName(call.body, "file");
  return Done(Ask("<request command=\"export\" name=\"" + XmlEscape(name) +
                  "\" file=\"" + XmlEscape(file) + "\"/>"),
              "export", call);
}

Response ConsoleApp::GetLists(Call& call) {
  const ptree reply = Ask(
      "<request command=\"get\" whitelist=\"1\" resource-exception=\"1\"/>");
  const ptree* whitelist = reply.get_child_optional("get.whitelist").get_ptr();
  const ptree* exceptions =
      reply.get_child_optional("get.resource-exception").get_ptr();
  std::vector<std::string> failures;
  if (whitelist == nullptr || exceptions == nullptr) {
    failures.push_back(
        "The plug-in did not list the whitelist and exceptions.");
  } else {
    CollectFailures(*whitelist, &failures);
    if (!NoExceptionsFile(*exceptions)) CollectFailures(*exceptions, &failures);
  }
  if (!failures.empty()) return Rejected(Join(failures), call);
  return Ok(JsonObject()
                .Raw("whitelist", JsonObject()
                                      .Strings("users", Texts(*whitelist, "u"))
                                      .Strings("groups", Texts(*whitelist, "g"))
                                      .str())
                .Strings("exceptions", Texts(*exceptions, "r"))
                .str(),
            call);
}

namespace {
// Items of `wanted` not in `have`.
std::vector<std::string> Missing(const std::vector<std::string>& wanted,
                                 const std::vector<std::string>& have) {
  std::vector<std::string> out;
  for (const auto& item : wanted) {
    bool found = false;
    for (const auto& h : have) found |= h == item;
    bool repeated = false;
    for (const auto& o : out) repeated |= o == item;
    if (!found && !repeated) out.push_back(item);
  }
  return out;
}
}  // namespace

// The whole list is sent; the plug-in only adds and removes entries, so the
// difference to what it holds now becomes one remove and one add.
Response ConsoleApp::SetWhitelist(Call& call) {
  const auto users = call.body.GetStrings("users");
  const auto groups = call.body.GetStrings("groups");
  const ptree current = Ask("<request command=\"get\" whitelist=\"1\"/>");
  const ptree* list = current.get_child_optional("get.whitelist").get_ptr();
  if (list == nullptr || Text(*list, "result") != "1") {
    return Rejected(list ? Text(*list, "error_desc")
                         : "The plug-in did not list the whitelist.",
                    call);
  }
  const auto drop_users = Missing(Texts(*list, "u"), users);
  const auto drop_groups = Missing(Texts(*list, "g"), groups);
  const auto new_users = Missing(users, Texts(*list, "u"));
  const auto new_groups = Missing(groups, Texts(*list, "g"));
  if (!drop_users.empty() || !drop_groups.empty()) {
    Response removed = Done(
        Ask("<request command=\"remove\"><whitelist>" + Items("u", drop_users) +
            Items("g", drop_groups) + "</whitelist></request>"),
        "remove", call);
    if (removed.result() != http::status::ok) return removed;
  }
  if (new_users.empty() && new_groups.empty())
    return Ok("{\"result\":1}", call);
  return Done(
      Ask("<request command=\"add\"><whitelist>" + Items("u", new_users) +
          Items("g", new_groups) + "</whitelist></request>"),
      "add", call);
}

Response ConsoleApp::SetExceptions(Call& call) {
  const auto resources = call.body.GetStrings("resources");
  const ptree current =
      Ask("<request command=\"get\" resource-exception=\"1\"/>");
  const ptree* list =
      current.get_child_optional("get.resource-exception").get_ptr();
  if (list == nullptr ||
      (Text(*list, "result") != "1" && !NoExceptionsFile(*list))) {
    return Rejected(list ? Text(*list, "error_desc")
                         : "The plug-in did not list the exceptions.",
                    call);
  }
  const auto dropped = Missing(Texts(*list, "r"), resources);
  const auto added = Missing(resources, Texts(*list, "r"));
  if (!dropped.empty()) {
    Response removed =
        Done(Ask("<request command=\"remove\"><resource-exception>" +
                 Items("r", dropped) + "</resource-exception></request>"),
             "remove", call);
    if (removed.result() != http::status::ok) return removed;
  }
  if (added.empty()) return Ok("{\"result\":1}", call);
  return Done(Ask("<request command=\"add\"><resource-exception>" +
                  Items("r", added) + "</resource-exception></request>"),
              "add", call);
}

Response ConsoleApp::GetControl(Call& call) {
  const ptree policies = Ask("<kxserv command=\"policies\"/>");
  const ptree status = Ask("<request command=\"status_confirmation\"/>");
  const ptree* confirmation = Child(status, "status_confirmation");
  const int state = ZeroOrOne(PolicyValue(policies, "state"));
  const int mode = ZeroOrOne(PolicyValue(policies, "mode"));
  const std::string text = confirmation ? Text(*confirmation, "state") : "";
  std::int64_t confirmation_state = -1;
  if (!text.empty()) ParseNumber(text, &confirmation_state);
  return Ok(
      JsonObject()
          .Int("state", state)
          .Int("mode", mode)
          .Raw("confirmation",
               JsonObject()
                   .Int("state", confirmation_state)
                   .Str("description",
                        confirmation ? Text(*confirmation, "description") : "")
                   .Str("phase", Phase(state, mode,
                                       static_cast<int>(confirmation_state)))
                   .str())
          .str(),
      call);
}

// State and mode are policies: they go through set-policies as "local"
// values, exactly as a central policy would arrive, so the plug-in's
// confirmation flow starts when hard mode is switched on.
Response ConsoleApp::SetControl(Call& call) {
  std::string document;
  for (const char* key : {"state", "mode"}) {
    if (!call.body.Has(key)) continue;
    const std::int64_t value = call.body.GetInt(key, 0);
    if (value != 0 && value != 1) {
      throw JsonError(std::string("\"") + key + "\" must be 0 or 1");
    }
    document += std::string("<policy group=\"aec\" name=\"") + key +
                "\" source=\"local\"><type>" + std::to_string(value) +
                "</type></policy>";
  }
  if (document.empty()) throw JsonError("give \"state\", \"mode\" or both");
  const ptree reply = Ask("<kxserv command=\"set-policies\"><policies>" +
                          document + "</policies></kxserv>");
  if (Text(reply, "result") != "1") {
    const std::string desc = Text(reply, "error_desc");
    return Rejected(desc.empty() ? "The plug-in refused the change." : desc,
                    call);
  }
  return GetControl(call);
}

Response ConsoleApp::Confirm(Call& call) {
  const ptree reply = Ask("<request command=\"confirm_hard_mode\"/>");
  const ptree* part = Child(reply, "confirm_hard_mode");
  if (part == nullptr || Text(*part, "result") != "1") {
    return Rejected(
        "There is nothing to confirm: hard mode was refused or not switched "
        "on.",
        call);
  }
  return GetControl(call);
}

Response ConsoleApp::GetProposals(Call& call) {
  const ptree reply =
      Ask("<kxserv command=\"propose\"" + PeriodAttributes(call.query) + "/>");
  if (Text(reply, "result") != "1") {
    return Rejected(ToolRunFailure(reply, "The proposal run failed."), call);
  }
  std::string proposals = "[";
  for (const auto& document : ReportObjects(Text(reply, "report"))) {
    JsonValue rule;
    try {
      rule = ParseJson(document);
    } catch (const JsonError& e) {
      Log(std::string("learning: a proposed rule is not JSON: ") + e.what());
      continue;
    }
    if (proposals.size() > 1) proposals += ",";
    proposals += JsonObject()
                     .Str("name", rule.GetString("name"))
                     .Strings("users", RuleList(rule, "user_list"))
                     .Strings("groups", RuleList(rule, "group_list"))
                     .Strings("resources", RuleList(rule, "resource_list"))
                     .Str("document", document)
                     .str();
  }
  return Ok(JsonObject()
                .Raw("proposals", proposals + "]")
                .Str("messages", Text(reply, "messages"))
                .str(),
            call);
}

// Accepting a proposal is adding its rule, as the tool's --apply does.
Response ConsoleApp::AcceptProposal(Call& call) { return AddRule(call); }

Response ConsoleApp::GetWhatIf(Call& call) {
  const ptree reply =
      Ask("<kxserv command=\"simulate\"" + PeriodAttributes(call.query) + "/>");
  if (Text(reply, "result") != "1") {
    return Rejected(ToolRunFailure(reply, "The what-if run failed."), call);
  }
  return Ok(JsonObject()
                .Bool("would_deny", Text(reply, "exit_code") == "26")
                .Str("report", Text(reply, "report"))
                .Str("messages", Text(reply, "messages"))
                .str(),
            call);
}

Response ConsoleApp::GetJournal(Call& call) {
  const JournalFilter filter = FilterOf(call.query);
  JournalPage page;
  try {
    page = QueryJournal(settings_.journal_path, filter);
  } catch (const JournalError& e) {
    return ApiError(http::status::service_unavailable, "journal_unreadable",
                    e.what(), call.request.version());
  }
  std::string rows = "[";
  for (const auto& row : page.rows) {
    if (rows.size() > 1) rows += ",";
    rows += JsonObject()
                .Int("id", row.id)
                .Int("time", row.time)
                .Int("event_id", row.event_id)
                .Str("event", row.event)
                .Str("outcome", row.outcome)
                .Str("program", row.program)
                .Str("object", row.object)
                .Str("user", row.user)
                .Str("group", row.group)
                .str();
  }
  JsonObject out;
  out.Int("total", page.total)
      .Int("page", filter.page)
      .Int("per_page", filter.per_page)
      .Raw("rows", rows + "]");
  if (page.missing) out.Str("journal", "missing");
  return Ok(out.str(), call);
}

Response ConsoleApp::GetJournalCsv(Call& call) {
  const JournalFilter filter = FilterOf(call.query);
  std::ostringstream csv;
  try {
    WriteJournalCsv(settings_.journal_path, filter, csv);
  } catch (const JournalError& e) {
    return ApiError(http::status::service_unavailable, "journal_unreadable",
                    e.what(), call.request.version());
  }
  Response response(http::status::ok, call.request.version());
  response.set(http::field::content_type, "text/csv; charset=utf-8");
  response.set(http::field::content_disposition,
               "attachment; filename=\"journal.csv\"");
  response.body() = csv.str();
  response.prepare_payload();
  return response;
}

Response ConsoleApp::GetJournalChart(Call& call) {
  JournalFilter filter = FilterOf(call.query);
  std::int64_t buckets = 24;
  const auto it = call.query.find("buckets");
  if (it != call.query.end() && !it->second.empty() &&
      (!ParseNumber(it->second, &buckets) || buckets < 1 || buckets > 500)) {
    throw JsonError("\"buckets\" must be a number from 1 to 500");
  }
  ApplyChartDefaults(&filter, static_cast<std::int64_t>(std::time(nullptr)));
  if (*filter.since > *filter.until) {
    throw JsonError("\"since\" must not be after \"until\"");
  }
  std::int64_t bucket_seconds = 0;
  std::vector<std::int64_t> denied;
  try {
    denied = DenialChart(settings_.journal_path, filter,
                         static_cast<int>(buckets), &bucket_seconds);
  } catch (const JournalError& e) {
    return ApiError(http::status::service_unavailable, "journal_unreadable",
                    e.what(), call.request.version());
  }
  std::string counts = "[";
  for (const auto n : denied) {
    counts += (counts.size() > 1 ? "," : "") + std::to_string(n);
  }
  JsonObject out;
  out.Int("since", *filter.since)
      .Int("until", *filter.until)
      .Int("bucket_seconds", bucket_seconds)
      .Raw("denied", counts + "]");
  if (!FileExists(settings_.journal_path)) out.Str("journal", "missing");
  return Ok(out.str(), call);
}

}  // namespace kxconsole
