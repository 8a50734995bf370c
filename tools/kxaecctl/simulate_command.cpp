#include "simulate_command.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

#include "accounts.h"
#include "configuration.h"
#include "decision.h"
#include "journal_reader.h"
#include "learning_options.h"
#include "rule_edit.h"
#include "rule_source.h"
#include "tables.h"
#include "tool_error.h"
#include "tool_paths.h"

namespace aectool {
namespace {

namespace engine = aec::engine;

constexpr const char* kHelp =
    "Usage: kxaecctl simulate --mode hard [--since TIME] [--until TIME]\n"
    "                         [--rules DIR] [--journal FILE]\n"
    "\n"
    "Replays the journal's program starts, library loads and file opens\n"
    "against the rules as they are loaded now (or the rule files in DIR,\n"
    "with the whitelist and exceptions in force) with the engine's own\n"
    "decision in hard mode, and prints what would be denied, by program and\n"
    "user, with counts. Events whose file or user no longer exists cannot\n"
    "be replayed and are counted apart.\n"
    "Exit 0 when nothing would be denied, 26 when something would.\n"
    "\n"
    "  --mode hard     the mode to replay in (only hard mode denies)\n"
    "  --since TIME    events at or after TIME (seconds since the epoch)\n"
    "  --until TIME    events before TIME\n"
    "  --rules DIR     a directory of rule files to replay against\n"
    "  --journal FILE  the journal (default "
    "/opt/korvex/var/log/audit_logs.db)\n";

struct Account {
  bool known = false;
  std::uint32_t uid = 0;
  std::vector<std::uint32_t> gids;  // primary first, then supplementary
};

Account LookUp(const std::string& user) {
  Account account;
  struct passwd* pw = ::getpwnam(user.c_str());
  if (pw == nullptr) return account;
  account.known = true;
  account.uid = pw->pw_uid;
  for (gid_t gid : GroupsOfUser(user)) account.gids.push_back(gid);
  return account;
}

std::vector<std::uint32_t> UserIds(const std::set<std::string>& names) {
  std::vector<std::uint32_t> ids;
  for (const auto& name : names) {
    if (const auto id = UserId(name)) ids.push_back(*id);
  }
  return ids;
}

std::vector<std::uint32_t> GroupIds(const std::set<std::string>& names) {
  std::vector<std::uint32_t> ids;
  for (const auto& name : names) {
    if (const auto id = GroupId(name)) ids.push_back(*id);
  }
  return ids;
}

// The rule files of `dir` with the whitelist and exceptions in force, as
// the engine takes a rule set. Accounts that do not exist apply to nobody.
engine::RuleSetInput InputFromRulesDir(const std::string& dir) {
  std::error_code error;
  if (!std::filesystem::is_directory(dir, error)) {
    throw ToolError(Exit::kConfigMissing,
                    "the rules directory " + dir + " does not exist");
  }
  engine::RuleSetInput input;
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (entry.path().extension() == ".conf") files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  for (const auto& file : files) {
    std::optional<RuleEdit> edit;
    try {
      edit.emplace(AecRule(file.string()));
    } catch (const std::exception& e) {
      throw ToolError(
          Exit::kConfigInvalid,
          "cannot read the rule file " + file.string() + ": " + e.what(),
          {file.string()});
    }
    engine::RuleSetInput::Rule rule;
    rule.name = edit->Name();
    rule.enabled = edit->Flag(rule_key::kEnable);
    rule.all_users = edit->Flag(rule_key::kAllAllowed);
    rule.extended = edit->Flag(rule_key::kExtended);
    rule.uids = UserIds(edit->List(rule_key::kUsers));
    rule.gids = GroupIds(edit->List(rule_key::kGroups));
    const auto resources = edit->List(rule_key::kResources);
    rule.resources.assign(resources.begin(), resources.end());
    input.rules.push_back(std::move(rule));
  }
  const Configuration config = Configuration::Load();
  const UsersAndGroups& whitelist = config.Whitelist();
  input.whitelist_uids =
      UserIds({whitelist.users.begin(), whitelist.users.end()});
  input.whitelist_gids =
      GroupIds({whitelist.groups.begin(), whitelist.groups.end()});
  input.exceptions.assign(config.Exceptions().begin(),
                          config.Exceptions().end());
  input.version = "rules directory " + dir;
  return input;
}

engine::RuleSetInput InputInForce() {
  engine::RuleSetInput input;
  std::string why;
  if (!engine::ReadRuleSetFile(LoadedSetPath(), &input, &why)) {
    throw ToolError(Exit::kKernelInteraction,
                    "cannot read the loaded rule set: " + why);
  }
  return input;
}

struct Tally {
  std::size_t starts = 0, loads = 0, opens = 0;
  std::size_t Total() const { return starts + loads + opens; }
};

int Simulate(const LongOptions& options, std::ostream& out, std::ostream& err) {
  if (!options.values.count("--mode")) {
    throw ToolError(Exit::kInvalidArgument, "--mode hard is required");
  }
  if (options.values.at("--mode") != "hard") {
    throw ToolError(
        Exit::kInvalidArgument,
        "only --mode hard can deny; not '" + options.values.at("--mode") + "'");
  }
  JournalFilter filter;
  filter.event_ids = {1050, 1051, 1052, 1053, 1054, 1055};
  if (options.values.count("--since")) {
    filter.since = ParseJournalTime("--since", options.values.at("--since"));
  }
  if (options.values.count("--until")) {
    filter.until = ParseJournalTime("--until", options.values.at("--until"));
  }
  const std::string journal = options.values.count("--journal")
                                  ? options.values.at("--journal")
                                  : JournalPath();
  const engine::RuleSetInput input =
      options.values.count("--rules")
          ? InputFromRulesDir(options.values.at("--rules"))
          : InputInForce();
  const auto tables = engine::Tables::Build(input, engine::StatResolver);
  const engine::Control control{true, true};

  // Hashed, not ordered: a long journal holds tens of thousands of distinct
  // accesses and is replayed row by row; only the report is sorted.
  std::unordered_map<std::string, Account> accounts;
  // The identity of each object, looked up once however many users and
  // events name it.
  std::unordered_map<std::string, std::optional<engine::FileId>> files;
  // (event, object, user) -> denied; the same access recurs in nearly
  // every row, so each is decided once.
  std::unordered_map<std::string, std::optional<bool>> decided;
  // program + '\0' + user: sorts as the pair does (no path holds a NUL).
  std::unordered_map<std::string, Tally> denied;
  std::size_t unreplayable = 0;
  std::string key;
  const JournalScan scan =
      ScanJournal(journal, filter, [&](const JournalRow& row) {
        key.assign(1, static_cast<char>(row.event_id - 1050));
        key.append(row.object).push_back('\0');
        key.append(row.username);
        auto found = decided.find(key);
        if (found == decided.end()) {
          std::optional<bool> verdict;
          auto account = accounts.find(row.username);
          if (account == accounts.end()) {
            account =
                accounts.emplace(row.username, LookUp(row.username)).first;
          }
          auto file = files.find(row.object);
          if (file == files.end()) {
            struct stat status;
            std::optional<engine::FileId> id;
            if (::stat(row.object.c_str(), &status) == 0) {
              id = engine::FileId{static_cast<std::uint64_t>(status.st_dev),
                                  static_cast<std::uint64_t>(status.st_ino)};
            }
            file = files.emplace(row.object, id).first;
          }
          if (account->second.known && file->second) {
            engine::Event event;
            event.file = *file->second;
            event.path = row.object;
            const bool exec = row.event_id == 1050 || row.event_id == 1051;
            event.access = exec ? engine::Access::kExec : engine::Access::kOpen;
            event.is_shared_object =
                row.event_id == 1052 || row.event_id == 1053;
            event.uid = account->second.uid;
            event.gids = account->second.gids;
            tables->Verify(event.file, event.path, engine::StatResolver);
            const engine::Decision decision =
                engine::Decide(event, *tables, control);
            verdict = decision.verdict == engine::Verdict::kDeny;
          }
          found = decided.emplace(key, verdict).first;
        }
        if (!found->second) {
          ++unreplayable;
          return;
        }
        if (!*found->second) return;
        std::string who = row.app;
        who.push_back('\0');
        who.append(row.username);
        Tally& tally = denied[who];
        if (row.event_id <= 1051) {
          ++tally.starts;
        } else if (row.event_id <= 1053) {
          ++tally.loads;
        } else {
          ++tally.opens;
        }
      });

  std::vector<const std::pair<const std::string, Tally>*> report;
  report.reserve(denied.size());
  for (const auto& entry : denied) report.push_back(&entry);
  std::sort(report.begin(), report.end(),
            [](const auto* a, const auto* b) { return a->first < b->first; });
  std::size_t total = 0;
  std::string program;
  for (const auto* entry : report) {
    const std::string& who = entry->first;
    const Tally& tally = entry->second;
    const std::size_t nul = who.find('\0');
    if (who.compare(0, nul, program) != 0 || program.size() != nul) {
      program = who.substr(0, nul);
      out << program << "\n";
    }
    out << "  " << who.substr(nul + 1) << ": " << tally.Total() << " denied ("
        << tally.starts << " starts, " << tally.loads << " library loads, "
        << tally.opens << " opens)\n";
    total += tally.Total();
  }
  out << "simulate: " << total << " of " << scan.rows
      << " events would be denied in hard mode";
  if (unreplayable != 0) {
    out << "; " << unreplayable << " could not be replayed (file or user gone)";
  }
  out << "\n";
  if (scan.incomplete != 0) {
    err << "kxaecctl: simulate: " << scan.incomplete
        << " journal rows without a program, object or user were skipped\n";
  }
  return total != 0 ? kWouldDeny : Exit::kSuccess;
}

}  // namespace

int RunSimulateCommand(const std::vector<std::string>& args, std::ostream& out,
                       std::ostream& err) {
  return ReportFailures("simulate", err, [&] {
    const LongOptions options = ParseLongOptions(
        args, {"--mode", "--since", "--until", "--rules", "--journal"}, {});
    if (options.Has("--help")) {
      out << kHelp;
      return static_cast<int>(Exit::kSuccess);
    }
    return Simulate(options, out, err);
  });
}

}  // namespace aectool
