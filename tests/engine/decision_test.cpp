// The decision over every combination of control, access kind, rule flags,
// identity and exception, checked against the table of cases of
// docs/enforcement.md written out independently below.
#include "decision.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace aec::engine {
namespace {

constexpr std::uint32_t kRuleUid = 1001;
constexpr std::uint32_t kRuleGid = 2001;
constexpr std::uint32_t kWhiteUid = 1002;
constexpr std::uint32_t kWhiteGid = 2002;
constexpr std::uint32_t kOtherUid = 1003;
constexpr std::uint32_t kOtherGid = 2003;

const FileId kResource{10, 100};
const FileId kOtherFile{10, 200};
const FileId kExceptionFile{10, 300};

// Identities come from a map, so no file is needed.
Resolver MapResolver() {
  return [](const std::string &path, FileId *id) {
    if (path == "/r/tool") {
      *id = kResource;
      return true;
    }
    if (path == "/r/exception") {
      *id = kExceptionFile;
      return true;
    }
    return false;
  };
}

enum class Who {
  kRuleUser,
  kRuleGroupMember,
  kWhiteUser,
  kWhiteGroupMember,
  kStranger
};

Event MakeEvent(Access access, bool shared_object, Who who, FileId file,
                const std::string &path) {
  Event e;
  e.access = access;
  e.is_shared_object = shared_object;
  e.file = file;
  e.path = path;
  switch (who) {
  case Who::kRuleUser:
    e.uid = kRuleUid;
    e.gids = {kOtherGid};
    break;
  case Who::kRuleGroupMember:
    e.uid = kOtherUid;
    e.gids = {kOtherGid, kRuleGid};
    break;
  case Who::kWhiteUser:
    e.uid = kWhiteUid;
    e.gids = {kOtherGid};
    break;
  case Who::kWhiteGroupMember:
    e.uid = kOtherUid;
    e.gids = {kWhiteGid};
    break;
  case Who::kStranger:
    e.uid = kOtherUid;
    e.gids = {kOtherGid};
    break;
  }
  return e;
}

struct Case {
  bool state, hard;
  int access; // 0 exec, 1 library load, 2 plain open
  bool enabled, all_users, extended;
  Who who;
  int file; // 0 the rule's resource, 1 another file, 2 an exception
};

// The table of cases, stated as docs/enforcement.md states it.
struct Expected {
  bool controlled;
  bool rules_deny;
  int event;
};

Expected Expect(const Case &c) {
  if (!c.state)
    return {false, false, 0};
  const bool extended_resource = c.file == 0 && c.enabled && c.extended;
  if (c.access == 2 && !extended_resource)
    return {false, false, 0};
  const int base = c.access == 0 ? 1050 : c.access == 1 ? 1052 : 1054;
  bool permitted = false;
  if (c.who == Who::kWhiteUser || c.who == Who::kWhiteGroupMember)
    permitted = true;
  if (c.file == 2)
    permitted = true;
  if (c.file == 0 && c.enabled) {
    const bool applies = c.all_users || c.who == Who::kRuleUser ||
                         c.who == Who::kRuleGroupMember;
    if (applies)
      permitted = true;
  }
  return {true, !permitted, permitted ? base : base + 1};
}

std::shared_ptr<const Tables> TablesFor(const Case &c) {
  RuleSetInput input;
  RuleSetInput::Rule rule;
  rule.name = "r";
  rule.enabled = c.enabled;
  rule.all_users = c.all_users;
  rule.extended = c.extended;
  rule.uids = {kRuleUid};
  rule.gids = {kRuleGid};
  rule.resources = {"/r/tool"};
  input.rules.push_back(rule);
  input.whitelist_uids = {kWhiteUid};
  input.whitelist_gids = {kWhiteGid};
  input.exceptions = {"/r/exception"};
  return Tables::Build(input, MapResolver());
}

TEST(DecisionTest, EveryCombinationFollowsTheTableOfCases) {
  int cases = 0;
  for (int bits = 0; bits < (1 << 5); ++bits) {
    for (int access = 0; access < 3; ++access) {
      for (int who = 0; who < 5; ++who) {
        for (int file = 0; file < 3; ++file) {
          for (int by_path = 0; by_path < 2; ++by_path) {
            Case c{(bits & 1) != 0,
                   (bits & 2) != 0,
                   access,
                   (bits & 4) != 0,
                   (bits & 8) != 0,
                   (bits & 16) != 0,
                   static_cast<Who>(who),
                   file};
            const auto tables = TablesFor(c);
            const FileId id = file == 0   ? kResource
                              : file == 1 ? kOtherFile
                                          : kExceptionFile;
            // An exception is found by its identity and by its path.
            const std::string path = file == 0   ? "/r/tool"
                                     : file == 1 ? "/r/other"
                                     : by_path   ? "/r/exception"
                                                 : "/moved/elsewhere";
            const FileId event_id =
                (file == 2 && by_path) ? FileId{99, 99} : id;
            const Event e =
                MakeEvent(access == 0 ? Access::kExec : Access::kOpen,
                          access == 1, c.who, event_id, path);
            const Decision d = Decide(e, *tables, Control{c.state, c.hard});
            const Expected want = Expect(c);
            SCOPED_TRACE("state=" + std::to_string(c.state) +
                         " hard=" + std::to_string(c.hard) +
                         " access=" + std::to_string(access) +
                         " enabled=" + std::to_string(c.enabled) +
                         " all=" + std::to_string(c.all_users) +
                         " ext=" + std::to_string(c.extended) + " who=" +
                         std::to_string(who) + " file=" + std::to_string(file) +
                         " by_path=" + std::to_string(by_path) +
                         " reason=" + ReasonName(d.reason));
            ASSERT_EQ(d.controlled, want.controlled);
            ASSERT_EQ(d.rules_deny, want.rules_deny);
            ASSERT_EQ(d.audit_event, want.event);
            ASSERT_EQ(d.success, want.rules_deny ? 0 : 1);
            ASSERT_EQ(d.verdict == Verdict::kDeny, want.rules_deny && c.hard);
            ++cases;
          }
        }
      }
    }
  }
  EXPECT_EQ(cases, 2880);
}

TEST(DecisionTest, OpenOfExtendedResourceIsPermittedOnlyByTheExtendedRule) {
  // Two rules hold the file: an ordinary one for everybody, an extended one
  // for uid 1001. Everybody may start it; only 1001 may open it.
  RuleSetInput input;
  input.rules.push_back({"plain", true, true, false, {}, {}, {"/r/tool"}});
  input.rules.push_back(
      {"ext", true, false, true, {kRuleUid}, {}, {"/r/tool"}});
  const auto tables = Tables::Build(input, MapResolver());
  const Control hard{true, true};
  EXPECT_EQ(Decide(MakeEvent(Access::kExec, false, Who::kStranger, kResource,
                             "/r/tool"),
                   *tables, hard)
                .verdict,
            Verdict::kAllow);
  EXPECT_EQ(Decide(MakeEvent(Access::kOpen, false, Who::kStranger, kResource,
                             "/r/tool"),
                   *tables, hard)
                .verdict,
            Verdict::kDeny);
  EXPECT_EQ(Decide(MakeEvent(Access::kOpen, false, Who::kRuleUser, kResource,
                             "/r/tool"),
                   *tables, hard)
                .verdict,
            Verdict::kAllow);
}

TEST(DecisionTest, HardLinkToForbiddenFileUnderAllowedNameIsDenied) {
  // The event names the allowed path, but the identity is another file's.
  RuleSetInput input;
  input.rules.push_back({"r", true, true, false, {}, {}, {"/r/tool"}});
  const auto tables = Tables::Build(input, MapResolver());
  const Decision d = Decide(
      MakeEvent(Access::kExec, false, Who::kRuleUser, kOtherFile, "/r/tool"),
      *tables, Control{true, true});
  EXPECT_EQ(d.verdict, Verdict::kDeny);
  EXPECT_EQ(d.reason, Reason::kNoRule);
}

TEST(DecisionTest, ChangedContentTakesAwayOnlyTheRulesPermission) {
  RuleSetInput input;
  input.rules.push_back({"r", true, true, false, {}, {}, {"/r/tool"}});
  input.whitelist_uids = {kWhiteUid};
  const auto tables = Tables::Build(input, MapResolver());
  Event e =
      MakeEvent(Access::kExec, false, Who::kStranger, kResource, "/r/tool");
  e.content_changed = true;
  const Decision d = Decide(e, *tables, Control{true, true});
  EXPECT_EQ(d.verdict, Verdict::kDeny);
  EXPECT_EQ(d.reason, Reason::kContentChanged);
  EXPECT_EQ(d.audit_event, kAuditDenyExec);
  // A whitelisted user is not restricted at all.
  Event w =
      MakeEvent(Access::kExec, false, Who::kWhiteUser, kResource, "/r/tool");
  w.content_changed = true;
  EXPECT_EQ(Decide(w, *tables, Control{true, true}).verdict, Verdict::kAllow);
}

TEST(DecisionTest, AuditMaskBitsFollowEventIds) {
  Decision d;
  d.audit_event = kAuditDenyOpenLib; // bit 3
  EXPECT_TRUE(d.Journalled(1u << 3));
  EXPECT_FALSE(d.Journalled(0x3f & ~(1u << 3)));
  d.audit_event = 0;
  EXPECT_FALSE(d.Journalled(0x3f));
  EXPECT_EQ(Control::FromParameter(3).hard, true);
  EXPECT_EQ(Control::FromParameter(2).enabled, false);
  EXPECT_EQ(Control::FromParameter(1).hard, false);
}

// The rules read the slow way: an enabled rule that names the path and
// applies to the user (only extended rules for a plain open).
bool SomeRulePermits(const RuleSetInput &input, const Event &e) {
  for (const auto &rule : input.rules) {
    if (!rule.enabled)
      continue;
    if (e.access == Access::kOpen && !e.is_shared_object && !rule.extended)
      continue;
    bool holds = false;
    for (const auto &p : rule.resources)
      holds |= p == e.path;
    bool applies = rule.all_users;
    for (auto u : rule.uids)
      applies |= u == e.uid;
    for (auto g : rule.gids)
      applies |= g == e.gids[0];
    if (holds && applies)
      return true;
  }
  return false;
}

// Properties over random rule sets: soft mode never answers deny; a
// whitelisted uid is never restricted; a disabled rule never permits.
TEST(DecisionTest, RandomSetsKeepTheInvariants) {
  std::mt19937 rng(20261123);
  for (int round = 0; round < 300; ++round) {
    RuleSetInput input;
    const int nrules = 1 + static_cast<int>(rng() % 6);
    for (int r = 0; r < nrules; ++r) {
      RuleSetInput::Rule rule;
      rule.name = "r" + std::to_string(r);
      rule.enabled = rng() % 2;
      rule.all_users = rng() % 4 == 0;
      rule.extended = rng() % 3 == 0;
      for (int k = 0; k < 3; ++k)
        rule.uids.push_back(1000 + rng() % 8);
      for (int k = 0; k < 2; ++k)
        rule.gids.push_back(2000 + rng() % 8);
      for (int k = 0; k < 3; ++k)
        rule.resources.push_back("/f/" + std::to_string(rng() % 10));
      input.rules.push_back(rule);
    }
    input.whitelist_uids = {static_cast<std::uint32_t>(1000 + rng() % 8)};
    const auto tables =
        Tables::Build(input, [](const std::string &p, FileId *id) {
          *id = FileId{1, std::stoull(p.substr(3))};
          return true;
        });
    for (int q = 0; q < 40; ++q) {
      Event e;
      e.access = rng() % 2 ? Access::kExec : Access::kOpen;
      e.is_shared_object = rng() % 2;
      e.file = FileId{1, rng() % 12};
      e.path = "/f/" + std::to_string(e.file.ino);
      e.uid = 1000 + rng() % 8;
      e.gids = {static_cast<std::uint32_t>(2000 + rng() % 8)};
      const Decision soft = Decide(e, *tables, Control{true, false});
      const Decision hard = Decide(e, *tables, Control{true, true});
      ASSERT_EQ(soft.verdict, Verdict::kAllow);
      ASSERT_EQ(soft.rules_deny, hard.rules_deny);
      ASSERT_EQ(soft.audit_event, hard.audit_event);
      if (e.uid == input.whitelist_uids[0]) {
        ASSERT_FALSE(hard.rules_deny);
      }
      // Brute force over the rules gives the same answer.
      if (hard.controlled && hard.reason == Reason::kRuleAllows) {
        ASSERT_TRUE(SomeRulePermits(input, e));
      }
      if (hard.controlled && hard.rules_deny) {
        ASSERT_FALSE(SomeRulePermits(input, e));
      }
    }
  }
}

} // namespace
} // namespace aec::engine
