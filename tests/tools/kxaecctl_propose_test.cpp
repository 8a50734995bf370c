// kxaecctl propose: rules proposed from a crafted journal of denials.
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "kxaecctl/elf_dependencies.h"
#include "kxaecctl/propose_command.h"
#include "learning_journal.h"
#include "tools_test_util.h"

namespace {

namespace fs = std::filesystem;
using toolstest::Row;
using toolstest::RuleJson;
using toolstest::RulePath;

std::string Doc(const std::string& json) {
  return json.empty() || json.back() == '\n' ? json : json + "\n";
}

class KxaecctlProposeTest : public toolstest::LearningTest {
 protected:
  void SetUp() override {
    LearningTest::SetUp();
    script_ = res_ + "run.sh";
    excepted_ = res_ + "excepted";
    kxtest::WriteFile(script_, "#!/bin/sh\necho hi\n", 0755);
    kxtest::WriteFile(excepted_, "#!/bin/sh\n", 0755);
    // bin is whitelisted, `excepted` a resource exception.
    ASSERT_EQ(Ctl({"add", "-u", "bin", "-r", excepted_}).exit_code, 0);
  }

  void AddDenials() {
    journal_.Add({1051, 100, tool_, tool_, "root", "root", 0});
    journal_.Add({1051, 200, tool_, tool_, "root", "root", 0});
    journal_.Add({1051, 300, tool_, tool_, "daemon", "daemon", 0});
    journal_.Add({1053, 300, tool_, lib_, "root", "root", 0});
    journal_.Add({1051, 400, script_, script_, "daemon", "daemon", 0});
    // Not proposed: whitelisted user, excepted path, permitted start,
    // a denied open, a row without a user.
    journal_.Add({1051, 500, tool_, tool_, "bin", "bin", 0});
    journal_.Add({1051, 500, excepted_, excepted_, "root", "root", 0});
    journal_.Add({1050, 500, res_ + "ok", res_ + "ok", "root", "root", 1});
    journal_.Add({1055, 500, tool_, res_ + "secret", "root", "root", 0});
    journal_.Add({1051, 500, tool_, tool_, std::nullopt, "root", 0});
  }

  // A program's resources as add takes them: itself and what it loads.
  std::vector<std::string> WithDependencies(std::vector<std::string> paths) {
    std::set<std::string> all(paths.begin(), paths.end());
    for (const auto& path : paths) {
      const auto found = aectool::FindDependencies(path).found;
      all.insert(found.begin(), found.end());
    }
    return {all.begin(), all.end()};
  }

  std::string ExpectedScript() {
    return RuleJson("learned-run.sh", false, false, false, true, {"daemon"}, {},
                    WithDependencies({script_}));
  }
  std::string ExpectedTool() {
    return RuleJson("learned-tool", false, false, false, true,
                    {"daemon", "root"}, {}, WithDependencies({tool_, lib_}));
  }

  std::string script_, excepted_;
};

}  // namespace

TEST_F(KxaecctlProposeTest, DenialsBecomeOneRulePerProgramForItsUsers) {
  AddDenials();
  const auto run = Ctl({"propose"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, Doc(ExpectedScript()) + Doc(ExpectedTool()));
  EXPECT_NE(run.err.find("2 rules from 7 denied events, 1 of whitelisted "
                         "users, 1 of excepted paths"),
            std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find("1 journal rows without a program, object or user"),
            std::string::npos)
      << run.err;
  // Printing proposes only: nothing is written.
  EXPECT_FALSE(kxtest::Exists(RulePath("learned-tool")));
  // Deterministic.
  EXPECT_EQ(Ctl({"propose"}).out, run.out);
}

TEST_F(KxaecctlProposeTest, ApplyAddsTheRulesAndASecondRunProposesNothing) {
  AddDenials();
  const auto run = Ctl({"propose", "--apply"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(kxtest::ReadFile(RulePath("learned-tool")), ExpectedTool());
  EXPECT_EQ(kxtest::ReadFile(RulePath("learned-run.sh")), ExpectedScript());
  EXPECT_NE(kxtest::ReadFile(toolstest::kLoadedSet).find(lib_),
            std::string::npos);
  // Sealed: the integrity check passes.
  EXPECT_EQ(Ctl({"reload", "-C"}).exit_code, 0);
  const auto again = Ctl({"propose"});
  EXPECT_EQ(again.exit_code, 0) << again.err;
  EXPECT_EQ(again.out, "");
  EXPECT_NE(again.err.find("0 rules from 7 denied events"), std::string::npos)
      << again.err;
}

TEST_F(KxaecctlProposeTest, TimeUserAndGroupNarrowTheEvents) {
  AddDenials();
  const auto late = Ctl({"propose", "--since", "350"});
  ASSERT_EQ(late.exit_code, 0) << late.err;
  EXPECT_EQ(late.out, Doc(ExpectedScript()));
  const auto early = Ctl({"propose", "--until", "250", "--user", "root"});
  ASSERT_EQ(early.exit_code, 0) << early.err;
  EXPECT_EQ(early.out, Doc(RuleJson("learned-tool", false, false, false, true,
                                    {"root"}, {}, WithDependencies({tool_}))));
  // A group's events give rules for the group.
  const auto group = Ctl({"propose", "--group", "daemon", "--since", "350"});
  ASSERT_EQ(group.exit_code, 0) << group.err;
  EXPECT_EQ(group.out,
            Doc(RuleJson("learned-run.sh", false, false, false, true, {},
                         {"daemon"}, WithDependencies({script_}))));
}

TEST_F(KxaecctlProposeTest, AddingToAnExistingRuleIsSaid) {
  AddDenials();
  ASSERT_EQ(
      Ctl({"add", "-n", "learned-tool", "-u", "daemon", "-r", tool_, lib_})
          .exit_code,
      0);
  const auto run = Ctl({"propose", "--user", "root", "--until", "350"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, Doc(ExpectedTool()));
  EXPECT_NE(run.err.find("widens the existing rule learned-tool"),
            std::string::npos)
      << run.err;
}

TEST_F(KxaecctlProposeTest, AMissingJournalIsElevenAndALockedOneIsNamed) {
  fs::remove(toolstest::kJournal);
  const auto missing = Ctl({"propose"});
  EXPECT_EQ(missing.exit_code, KxAecCtl::kConfigMissing);
  EXPECT_NE(missing.err.find("does not exist"), std::string::npos)
      << missing.err;
}

TEST_F(KxaecctlProposeTest, AJournalLockedByItsWriterIsNamed) {
  AddDenials();
  journal_.Lock();
  const auto run = Ctl({"propose"});
  journal_.Unlock();
  EXPECT_EQ(run.exit_code, KxAecCtl::kUnknownError);
  EXPECT_NE(run.err.find("locked by its writer"), std::string::npos) << run.err;
  EXPECT_EQ(run.out, "");
}

TEST_F(KxaecctlProposeTest, BadTimesAndOptionsAreRefused) {
  EXPECT_EQ(Ctl({"propose", "--since", "yesterday"}).exit_code,
            KxAecCtl::kInvalidDateTime);
  EXPECT_EQ(Ctl({"propose", "--apply", "--apply"}).exit_code,
            KxAecCtl::kInvalidArgument);
  EXPECT_EQ(Ctl({"propose", "-n", "x"}).exit_code, KxAecCtl::kInvalidArgument);
}

TEST(LearnedRuleName, IsReadableAndAValidRuleName) {
  EXPECT_EQ(aectool::LearnedRuleName("/usr/bin/python3.11"),
            "learned-python3.11");
  EXPECT_EQ(aectool::LearnedRuleName("/opt/my app/run$"), "learned-run-");
}

TEST_F(KxaecctlProposeTest, AUserAllowedThroughAGroupIsNotProposed) {
  AddDenials();
  ASSERT_EQ(
      Ctl({"add", "-n", "by-group", "-g", "root", "-r", tool_, lib_, "-d"})
          .exit_code,
      0);
  const auto run = Ctl({"propose", "--until", "350"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out,
            Doc(RuleJson("learned-tool", false, false, false, true, {"daemon"},
                         {}, WithDependencies({tool_, lib_}))));
}

TEST_F(KxaecctlProposeTest, ManyProgramsComeInPathOrderAndSoDoesWhatIsSaid) {
  // Rows in reverse path order, the journal read in parts and the rules
  // built on several threads: rules and messages still follow the paths.
  std::vector<std::string> programs;
  for (int i = 0; i < 60; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "p%02d", i);
    programs.push_back(res_ + name);
    if (i % 3 != 2) kxtest::WriteFile(programs.back(), "#!/bin/sh\n", 0755);
  }
  for (int i = 59; i >= 0; --i) {
    const std::string user = i % 3 == 1 ? "no-such-user" : "root";
    journal_.Add({1051, 100 + i, programs[i], programs[i], user, user, 0});
  }
  const auto run = Ctl({"propose"});
  ASSERT_EQ(run.exit_code, 0) << run.err;

  std::vector<std::string> rules, said;
  for (std::size_t at = run.out.find("\"learned-p"); at != std::string::npos;
       at = run.out.find("\"learned-p", at + 1)) {
    rules.push_back(run.out.substr(at + 1, 11));
  }
  std::istringstream lines(run.err);
  for (std::string line; std::getline(lines, line);) {
    const auto at = line.find(res_ + "p");
    if (at != std::string::npos) {
      said.push_back(line.substr(at, res_.size() + 3));
    }
  }
  std::vector<std::string> expected_rules, expected_said;
  for (int i = 0; i < 60; ++i) {
    if (i % 3 == 0) {
      expected_rules.push_back("learned-" + programs[i].substr(res_.size()));
    } else {
      expected_said.push_back(programs[i]);
    }
  }
  EXPECT_EQ(rules, expected_rules) << run.out;
  EXPECT_EQ(said, expected_said) << run.err;
  const auto again = Ctl({"propose"});
  EXPECT_EQ(again.out, run.out);
  EXPECT_EQ(again.err, run.err);
}
