#include "aec_loaded_set.h"

#include <initializer_list>
#include <string_view>
#include <unordered_map>

#include "aec_config_read.h"
#include "host/line_escape.h"

namespace aec {
namespace {

constexpr const char* kHeader =
    "# Application execution control: the loaded rule set.\n"
    "# Written by kxaecctl; docs/tools.md describes it. Do not edit.\n"
    "format\t1\n";

void AppendRecord(std::string* text,
                  std::initializer_list<std::string> fields) {
  bool first = true;
  for (const auto& field : fields) {
    if (!first) *text += '\t';
    first = false;
    *text += kxtext::EscapeLine(field);
  }
  *text += '\n';
}

std::string Bit(bool flag) { return flag ? "1" : "0"; }

// The bytes that end a run of plain text in a line: a field separator, an
// escape, and the two bytes a line may not hold raw (a string_view, as the
// NUL is one of them).
constexpr std::string_view kSpecial("\t\\\r\0", 4);

// One line being parsed; every failure names its line number.
class Line {
 public:
  // A set holds a line per resource, a million of them in a large one:
  // the runs between special bytes are copied whole.
  Line(std::size_t number, std::string_view raw) : number_(number) {
    fields_.reserve(6);
    std::string field;
    std::size_t i = 0;
    while (i < raw.size()) {
      const std::size_t special = raw.find_first_of(kSpecial, i);
      const std::size_t run_end =
          special == std::string_view::npos ? raw.size() : special;
      field.append(raw.data() + i, run_end - i);
      i = run_end;
      if (i == raw.size()) break;
      const char c = raw[i];
      if (c == '\t') {
        fields_.push_back(std::move(field));
        field.clear();
      } else if (c == '\\') {
        if (++i == raw.size()) Fail("a backslash ends the line");
        switch (raw[i]) {
          case '\\':
            field += '\\';
            break;
          case 't':
            field += '\t';
            break;
          case 'n':
            field += '\n';
            break;
          case 'r':
            field += '\r';
            break;
          default:
            Fail(std::string("unknown escape \\") + raw[i]);
        }
      } else {
        Fail(c == '\r' ? "a raw carriage return" : "a NUL byte");
      }
      ++i;
    }
    fields_.push_back(std::move(field));
  }

  const std::string& Kind() const { return fields_[0]; }

  void ExpectFields(std::size_t count) const {
    if (fields_.size() != count) {
      Fail("\"" + Kind() + "\" takes " + std::to_string(count - 1) +
           " fields, not " + std::to_string(fields_.size() - 1));
    }
  }

  // A name or path: never empty.
  const std::string& Text(std::size_t i, const char* what) const {
    if (fields_[i].empty()) Fail(std::string("an empty ") + what);
    return fields_[i];
  }

  // Text(), handed over: the line is done with it.
  std::string Take(std::size_t i, const char* what) {
    Text(i, what);
    return std::move(fields_[i]);
  }

  bool Flag(std::size_t i) const {
    if (fields_[i] != "0" && fields_[i] != "1") {
      Fail("a flag is \"" + fields_[i] + "\", not 0 or 1");
    }
    return fields_[i] == "1";
  }

  std::uint32_t Id(std::size_t i) const {
    const std::string& digits = fields_[i];
    std::uint64_t value = 0;
    if (digits.empty() || digits.size() > 10)
      Fail("a bad id \"" + digits + "\"");
    for (char c : digits) {
      if (c < '0' || c > '9') Fail("a bad id \"" + digits + "\"");
      value = value * 10 + static_cast<std::uint64_t>(c - '0');
    }
    if (value > 0xffffffffULL) Fail("a bad id \"" + digits + "\"");
    return static_cast<std::uint32_t>(value);
  }

  LoadedAccount Account(std::size_t id_field) const {
    return LoadedAccount{Id(id_field), Text(id_field + 1, "name")};
  }

  [[noreturn]] void Fail(const std::string& reason) const {
    throw LoadedSetError(number_, reason);
  }

 private:
  std::size_t number_;
  std::vector<std::string> fields_;
};

}  // namespace

bool LoadedRule::operator==(const LoadedRule& other) const {
  return name == other.name && enable == other.enable &&
         all_users == other.all_users && extended == other.extended &&
         system == other.system && users == other.users &&
         groups == other.groups && resources == other.resources;
}

bool LoadedSet::operator==(const LoadedSet& other) const {
  return rules == other.rules && whitelist_users == other.whitelist_users &&
         whitelist_groups == other.whitelist_groups &&
         exceptions == other.exceptions;
}

LoadedSetError::LoadedSetError(std::size_t line, const std::string& reason)
    : std::runtime_error(
          (line == 0 ? std::string("loaded set: ")
                     : "loaded set line " + std::to_string(line) + ": ") +
          reason),
      line_(line) {}

LoadedSet ParseLoadedSet(const std::string& text) {
  LoadedSet set;
  std::unordered_map<std::string, std::size_t> rule_index;
  bool have_format = false;
  std::size_t last_rule = 0;
  std::size_t number = 0;
  std::size_t begin = 0;
  while (begin < text.size()) {
    std::size_t end = text.find('\n', begin);
    if (end == std::string::npos) end = text.size();
    ++number;
    const std::string_view raw =
        std::string_view(text).substr(begin, end - begin);
    begin = end + 1;
    if (raw.empty() || raw[0] == '#') continue;

    Line line(number, raw);
    const std::string& kind = line.Kind();
    if (kind == "format") {
      if (have_format) line.Fail("a second format record");
      line.ExpectFields(2);
      if (line.Text(1, "format") != "1") {
        line.Fail("unknown format \"" + line.Text(1, "format") + "\"");
      }
      have_format = true;
      continue;
    }
    if (!have_format) line.Fail("a record before the format record");

    if (kind == "rule") {
      line.ExpectFields(6);
      LoadedRule rule;
      rule.name = line.Text(1, "rule name");
      rule.enable = line.Flag(2);
      rule.all_users = line.Flag(3);
      rule.extended = line.Flag(4);
      rule.system = line.Flag(5);
      if (!rule_index.emplace(rule.name, set.rules.size()).second) {
        line.Fail("rule \"" + rule.name + "\" is declared twice");
      }
      set.rules.push_back(std::move(rule));
    } else if (kind == "rule-user" || kind == "rule-group" ||
               kind == "rule-resource") {
      line.ExpectFields(kind == "rule-resource" ? 3 : 4);
      const std::string& name = line.Text(1, "rule name");
      // A rule's records follow one another: the rule of the line before
      // is the likely one.
      if (last_rule >= set.rules.size() || set.rules[last_rule].name != name) {
        const auto found = rule_index.find(name);
        if (found == rule_index.end()) {
          line.Fail("rule \"" + name + "\" is not declared before");
        }
        last_rule = found->second;
      }
      LoadedRule& rule = set.rules[last_rule];
      if (kind == "rule-user") {
        rule.users.push_back(line.Account(2));
      } else if (kind == "rule-group") {
        rule.groups.push_back(line.Account(2));
      } else {
        rule.resources.push_back(line.Take(2, "path"));
      }
    } else if (kind == "whitelist-user" || kind == "whitelist-group") {
      line.ExpectFields(3);
      (kind == "whitelist-user" ? set.whitelist_users : set.whitelist_groups)
          .push_back(line.Account(1));
    } else if (kind == "exception") {
      line.ExpectFields(2);
      set.exceptions.push_back(line.Take(1, "path"));
    } else {
      line.Fail("unknown record \"" + kind + "\"");
    }
  }
  if (!have_format) throw LoadedSetError(0, "no format record");
  return set;
}

LoadedSet ReadLoadedSetFile(const std::string& path) {
  return ParseLoadedSet(
      ReadConfigFile(path, kMaxLoadedSetBytes, Links::kRefuse));
}

std::string FormatLoadedSet(const LoadedSet& set) {
  std::string text = kHeader;
  for (const auto& rule : set.rules) {
    AppendRecord(&text,
                 {"rule", rule.name, Bit(rule.enable), Bit(rule.all_users),
                  Bit(rule.extended), Bit(rule.system)});
    for (const auto& user : rule.users) {
      AppendRecord(
          &text, {"rule-user", rule.name, std::to_string(user.id), user.name});
    }
    for (const auto& group : rule.groups) {
      AppendRecord(&text, {"rule-group", rule.name, std::to_string(group.id),
                           group.name});
    }
    for (const auto& resource : rule.resources) {
      AppendRecord(&text, {"rule-resource", rule.name, resource});
    }
  }
  for (const auto& user : set.whitelist_users) {
    AppendRecord(&text, {"whitelist-user", std::to_string(user.id), user.name});
  }
  for (const auto& group : set.whitelist_groups) {
    AppendRecord(&text,
                 {"whitelist-group", std::to_string(group.id), group.name});
  }
  for (const auto& exception : set.exceptions) {
    AppendRecord(&text, {"exception", exception});
  }
  return text;
}

}  // namespace aec
