#include "propose_command.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "accounts.h"
#include "commands.h"
#include "configuration.h"
#include "elf_dependencies.h"
#include "for_each_in_parallel.h"
#include "journal_reader.h"
#include "learning_options.h"
#include "resources.h"
#include "rule_edit.h"
#include "tool_error.h"
#include "tool_lock.h"
#include "tool_threads.h"

namespace aectool {
namespace {

constexpr const char* kHelp =
    "Usage: kxaecctl propose [--since TIME] [--until TIME] [--user USER]\n"
    "                        [--group GROUP] [--journal FILE] [--apply]\n"
    "\n"
    "Reads the program starts and library loads the rules denied (in soft\n"
    "mode: would have denied) from the audit journal and prints, for each\n"
    "program, a rule for the users who ran it: the program, the libraries\n"
    "it was denied and what it loads. Nothing is proposed for whitelisted\n"
    "users and groups, resource exceptions, or what a rule already allows.\n"
    "A proposal that adds to an existing rule is named on standard error.\n"
    "\n"
    "  --since TIME    events at or after TIME (seconds since the epoch)\n"
    "  --until TIME    events before TIME\n"
    "  --user USER     only events of USER\n"
    "  --group GROUP   only events of GROUP; the rules are for GROUP\n"
    "  --journal FILE  the journal (default "
    "/opt/korvex/var/log/audit_logs.db)\n"
    "  --apply         add the proposed rules (as kxaecctl add does)\n";

enum class PathKind { kMissing, kFile, kDirectory };

PathKind KindOf(const std::string& path) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return PathKind::kMissing;
  return S_ISDIR(info.st_mode) ? PathKind::kDirectory : PathKind::kFile;
}

struct Observed {
  std::set<std::string> resources;  // the program and its denied libraries
  std::set<std::string> users;
};

struct Proposal {
  std::string name;
  std::string program;
  std::vector<std::string> users;
  std::vector<std::string> groups;
  std::vector<std::string> resources;  // to hand to add (existing files)
  std::string document;                // the rule as it would be, printed
  bool widens = false;
};

// An enabled rule's lists, read once: a baseline rule holds thousands of
// resources, and every user of every program is checked against it.
struct RuleView {
  bool all_users = false;
  std::set<std::string> users;
  std::set<gid_t> gids;
  std::set<std::string> resources;
};

std::vector<RuleView> EnabledRules(const Configuration& config) {
  std::vector<RuleView> views;
  for (const auto& entry : config.Rules()) {
    const RuleEdit rule(entry.second);
    if (!rule.Flag(rule_key::kEnable)) continue;
    RuleView view;
    view.all_users = rule.Flag(rule_key::kAllAllowed);
    view.users = rule.List(rule_key::kUsers);
    for (const auto& group : rule.List(rule_key::kGroups)) {
      if (const std::optional<gid_t> gid = GroupId(group)) {
        view.gids.insert(*gid);
      }
    }
    view.resources = rule.List(rule_key::kResources);
    views.push_back(std::move(view));
  }
  return views;
}

bool AppliesTo(const RuleView& rule, const std::string& user,
               const std::vector<gid_t>& gids) {
  if (rule.all_users || rule.users.count(user) != 0) return true;
  for (gid_t gid : gids) {
    if (rule.gids.count(gid) != 0) return true;
  }
  return false;
}

// Each user's account looked up once: the account database is read whole
// for every lookup, and a journal names the same users for thousands of
// programs.
class AccountCache {
 public:
  bool Known(const std::string& user) { return Find(user).known; }
  const std::vector<gid_t>& Groups(const std::string& user) {
    return Find(user).gids;
  }

 private:
  struct Account {
    bool known = false;
    std::vector<gid_t> gids;
  };
  const Account& Find(const std::string& user) {
    auto found = accounts_.find(user);
    if (found == accounts_.end()) {
      Account account;
      account.known = UserId(user).has_value();
      if (account.known) account.gids = GroupsOfUser(user);
      found = accounts_.emplace(user, std::move(account)).first;
    }
    return found->second;
  }

  std::map<std::string, Account> accounts_;
};

// True when enabled rules let `user` use every one of `resources`.
bool Covered(const std::vector<RuleView>& rules, const std::string& user,
             const std::set<std::string>& resources, AccountCache* accounts) {
  const std::vector<gid_t>& gids = accounts->Groups(user);
  for (const auto& resource : resources) {
    bool allowed = false;
    for (const auto& rule : rules) {
      if (rule.resources.count(resource) != 0 && AppliesTo(rule, user, gids)) {
        allowed = true;
        break;
      }
    }
    if (!allowed) return false;
  }
  return true;
}

bool Whitelisted(const UsersAndGroups& whitelist, const JournalRow& row) {
  for (const auto& user : whitelist.users) {
    if (user == row.username) return true;
  }
  for (const auto& group : whitelist.groups) {
    if (group == row.groupname) return true;
  }
  return false;
}

std::vector<Proposal> Propose(const LongOptions& options,
                              const Configuration& config, std::ostream& err) {
  JournalFilter filter;
  filter.event_ids = {1051, 1053};
  filter.denied_only = true;
  if (options.values.count("--since")) {
    filter.since = ParseJournalTime("--since", options.values.at("--since"));
  }
  if (options.values.count("--until")) {
    filter.until = ParseJournalTime("--until", options.values.at("--until"));
  }
  if (options.values.count("--user")) filter.user = options.values.at("--user");
  if (options.values.count("--group")) {
    filter.group = options.values.at("--group");
  }
  const std::string journal = options.values.count("--journal")
                                  ? options.values.at("--journal")
                                  : JournalPath();

  // Each part of the journal is gathered on its own thread, then merged:
  // what is proposed does not depend on the order of the rows.
  struct Gathered {
    std::unordered_map<std::string, Observed> programs;
    std::size_t whitelisted = 0;
    std::size_t excepted = 0;
  };
  const std::set<std::string>& exceptions = config.Exceptions();
  std::vector<Gathered> parts(
      aec::WorkerCount(std::numeric_limits<std::size_t>::max(), kToolThreads));
  const JournalScan scan = ScanJournalInParts(
      journal, filter, [&](std::size_t part, const JournalRow& row) {
        Gathered& gathered = parts[part];
        if (Whitelisted(config.Whitelist(), row)) {
          ++gathered.whitelisted;
          return;
        }
        if (exceptions.count(row.app) != 0 ||
            exceptions.count(row.object) != 0) {
          ++gathered.excepted;
          return;
        }
        auto found = gathered.programs.find(row.app);
        if (found == gathered.programs.end()) {
          found = gathered.programs.emplace(row.app, Observed()).first;
          found->second.resources.insert(row.app);
        }
        Observed& observed = found->second;
        if (row.event_id == 1053) observed.resources.insert(row.object);
        observed.users.insert(row.username);
      });
  if (scan.incomplete != 0) {
    err << "kxaecctl: propose: " << scan.incomplete
        << " journal rows without a program, object or user were skipped\n";
  }
  std::size_t whitelisted = 0, excepted = 0;
  std::map<std::string, Observed> programs;  // sorted: deterministic output
  for (auto& part : parts) {
    whitelisted += part.whitelisted;
    excepted += part.excepted;
    for (auto& [program, observed] : part.programs) {
      Observed& merged = programs[program];
      merged.resources.merge(observed.resources);
      merged.users.merge(observed.users);
    }
  }

  // What each path of the journal is, and what each file loads (remembered
  // by FindDependencies for the rules built below), looked at once on every
  // processor: programs share their libraries.
  std::vector<const std::string*> paths;
  {
    std::unordered_set<std::string_view> named;
    for (const auto& entry : programs) {
      for (const auto& resource : entry.second.resources) {
        if (named.insert(resource).second) paths.push_back(&resource);
      }
    }
  }
  std::vector<PathKind> path_kinds(paths.size());
  aec::ForEachInParallel(paths.size(), kToolThreads, [&](std::size_t i) {
    path_kinds[i] = KindOf(*paths[i]);
    if (path_kinds[i] == PathKind::kFile) FindDependencies(*paths[i]);
  });
  std::unordered_map<std::string_view, PathKind> kinds;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    kinds.emplace(*paths[i], path_kinds[i]);
  }
  const auto kind_of = [&kinds](const std::string& path) {
    const auto found = kinds.find(path);
    return found != kinds.end() ? found->second : KindOf(path);
  };
  const std::vector<RuleView> enabled_rules = EnabledRules(config);
  AccountCache accounts;

  // First, in path order, who each program is proposed for and under
  // which name; what is said on standard error is kept with the program
  // so that it comes out in this order whatever thread builds the rule.
  struct Draft {
    std::string said_before;  // about the program and its users
    std::vector<std::string> unresolved;
    bool proposed = false;
    bool all_files = true;
    const AecRule* existing = nullptr;
    Proposal proposal;
  };
  std::vector<Draft> drafts;
  drafts.reserve(programs.size());
  std::map<std::string, int> names_taken;
  for (const auto& [program, observed] : programs) {
    drafts.emplace_back();
    Draft& draft = drafts.back();
    if (kind_of(program) == PathKind::kMissing) {
      draft.said_before = "kxaecctl: propose: " + program +
                          " no longer exists; nothing proposed for it\n";
      continue;
    }
    std::vector<std::string> users;
    for (const auto& user : observed.users) {
      if (!accounts.Known(user)) {
        draft.said_before += "kxaecctl: propose: unknown user " + user +
                             " (ran " + program + ") skipped\n";
        continue;
      }
      if (!Covered(enabled_rules, user, observed.resources, &accounts)) {
        users.push_back(user);
      }
    }
    if (users.empty()) continue;
    draft.proposed = true;
    Proposal& proposal = draft.proposal;
    proposal.program = program;
    for (const auto& resource : observed.resources) {
      const PathKind kind = kind_of(resource);
      if (kind != PathKind::kMissing) proposal.resources.push_back(resource);
      draft.all_files = draft.all_files && kind != PathKind::kDirectory;
    }
    if (filter.group) {
      proposal.groups = {*filter.group};
    } else {
      proposal.users = users;
    }
    // Readable and unique: programs of the same file name in different
    // directories get "-2", "-3" in path order; a system rule's name is
    // never reused.
    const std::string base = LearnedRuleName(program);
    int n = ++names_taken[base];
    std::string name = n == 1 ? base : base + "-" + std::to_string(n);
    while (config.FindRule(name) != nullptr &&
           config.FindRule(name)->System()) {
      n = ++names_taken[base];
      name = base + "-" + std::to_string(n);
    }
    proposal.name = name;
    draft.existing = config.FindRule(name);
    proposal.widens = draft.existing != nullptr;
  }

  // Then each rule, with what its files load: thousands of them, each
  // independent of the others, so every processor builds some.
  aec::ForEachInParallel(drafts.size(), kToolThreads, [&drafts](std::size_t i) {
    Draft& draft = drafts[i];
    if (!draft.proposed) return;
    Proposal& proposal = draft.proposal;
    ResourceRequest request;
    request.paths = proposal.resources;
    request.dependencies = true;
    request.checked_files = draft.all_files;
    request.unresolved = &draft.unresolved;
    const std::set<std::string> resources = CollectResources(request);
    RuleEdit edit = draft.existing ? RuleEdit(*draft.existing)
                                   : RuleEdit::New(proposal.name);
    std::set<std::string> list_users = edit.List(rule_key::kUsers);
    list_users.insert(proposal.users.begin(), proposal.users.end());
    std::set<std::string> list_groups = edit.List(rule_key::kGroups);
    list_groups.insert(proposal.groups.begin(), proposal.groups.end());
    std::set<std::string> list_resources = edit.List(rule_key::kResources);
    list_resources.insert(resources.begin(), resources.end());
    edit.SetList(rule_key::kUsers, list_users);
    edit.SetList(rule_key::kGroups, list_groups);
    edit.SetList(rule_key::kResources, list_resources);
    proposal.document = edit.ToRule().ToJson();
  });

  std::vector<Proposal> proposals;
  for (auto& draft : drafts) {
    err << draft.said_before;
    for (const auto& name : draft.unresolved) {
      err << "kxaecctl: not found, not added: " << name << "\n";
    }
    if (!draft.proposed) continue;
    if (draft.proposal.widens) {
      err << "kxaecctl: propose: widens the existing rule "
          << draft.proposal.name << " (users or resources added)\n";
    }
    proposals.push_back(std::move(draft.proposal));
  }
  err << "kxaecctl: propose: " << proposals.size() << " rules from "
      << scan.rows << " denied events";
  if (whitelisted != 0) err << ", " << whitelisted << " of whitelisted users";
  if (excepted != 0) err << ", " << excepted << " of excepted paths";
  err << "\n";
  return proposals;
}

void Apply(const std::vector<Proposal>& proposals) {
  for (const auto& proposal : proposals) {
    Invocation add;
    add.command = Command::kAdd;
    add.word = "add";
    add.names = {proposal.name};
    add.users = proposal.users;
    add.groups = proposal.groups;
    add.resources = proposal.resources;
    RunAdd(add);
  }
}

}  // namespace

std::string LearnedRuleName(const std::string& path) {
  const auto slash = path.find_last_of('/');
  std::string file = slash == std::string::npos ? path : path.substr(slash + 1);
  for (char& c : file) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                       (c >= '0' && c <= '9') || c == '.' || c == '_' ||
                       c == '-';
    if (!plain) c = '-';
  }
  if (file.empty() || file == "." || file == "..") file = "program";
  std::string name = "learned-" + file;
  if (name.size() > 200) name.resize(200);
  return name;
}

int RunProposeCommand(const std::vector<std::string>& args, std::ostream& out,
                      std::ostream& err) {
  return ReportFailures("propose", err, [&] {
    const LongOptions options = ParseLongOptions(
        args, {"--since", "--until", "--user", "--group", "--journal"},
        {"--apply"});
    if (options.Has("--help")) {
      out << kHelp;
      return static_cast<int>(Exit::kSuccess);
    }
    // With --apply the lock is held from reading the rules to the last
    // add, so no other change slips in between.
    std::optional<ToolLock> lock;
    if (options.Has("--apply")) lock.emplace();
    const Configuration config = Configuration::Load();
    const std::vector<Proposal> proposals = Propose(options, config, err);
    for (const auto& proposal : proposals) {
      const std::string& text = proposal.document;
      out << text;
      if (text.empty() || text.back() != '\n') out << "\n";
    }
    if (options.Has("--apply")) Apply(proposals);
    return static_cast<int>(Exit::kSuccess);
  });
}

}  // namespace aectool
