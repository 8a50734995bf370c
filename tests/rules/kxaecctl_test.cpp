// The rule-control tool driver: its command lines, its runs of the tool
// without a shell, exit codes and their descriptions.
#include "kxaecctl.h"

#include <signal.h>

#include <string>
#include <vector>

#include "host/errors.h"
#include "kxtest.h"
#include "rules_test_util.h"

using Args = std::vector<std::string>;

namespace {

const std::string kTool = "/opt/korvex/bin/kxaecctl";

class KxAecCtlTest : public kxtest::SandboxTest {
 protected:
  void Fake(int exit_code, const std::vector<std::string>& lines = {},
            bool no_newline = false, int kill_signal = 0) {
    kxtest::FakeBehaviour behaviour;
    behaviour.exit_code = exit_code;
    behaviour.lines = lines;
    behaviour.last_line_without_newline = no_newline;
    behaviour.kill_signal = kill_signal;
    kxtest::InstallFakeTool("kxaecctl", behaviour);
  }
};

std::string Appended(void (*build)(KxAecCtl&)) {
  KxAecCtl tool("cmd", false);
  const std::string before = tool.CommandLine();
  build(tool);
  return tool.CommandLine().substr(before.size());
}

Args AppendedArgs(void (*build)(KxAecCtl&)) {
  KxAecCtl tool("cmd", false);
  build(tool);
  return Args(tool.Arguments().begin() + 2, tool.Arguments().end());
}

}  // namespace

TEST_F(KxAecCtlTest, StandardOptionsFollowTheCommandWord) {
  EXPECT_EQ(KxAecCtl("reload", true).CommandLine(),
            "/opt/korvex/bin/kxaecctl reload -C -v");
  EXPECT_EQ(KxAecCtl("reload", true).Arguments(),
            (Args{kTool, "reload", "-C", "-v"}));
  EXPECT_EQ(KxAecCtl("restart", false).CommandLine(),
            "/opt/korvex/bin/kxaecctl restart");
  EXPECT_EQ(KxAecCtl("restart", false).Arguments(), (Args{kTool, "restart"}));
}

TEST_F(KxAecCtlTest, EveryBuilderAppendsItsOptionAndQuotedValues) {
  struct Case {
    void (*build)(KxAecCtl&);
    std::string text;
    Args args;
  };
  const std::vector<Case> cases = {
      {[](KxAecCtl& t) {
         t.AddRules({"r1", "r2"});
       },
       " -n \"r1\" \"r2\"",
       {"-n", "r1", "r2"}},
      {[](KxAecCtl& t) { t.AddUsers({"u1"}); }, " -u \"u1\"", {"-u", "u1"}},
      {[](KxAecCtl& t) {
         t.AddGroups({"g1", "g2"});
       },
       " -g \"g1\" \"g2\"",
       {"-g", "g1", "g2"}},
      {[](KxAecCtl& t) { t.AddResources({"/p"}); }, " -r \"/p\"", {"-r", "/p"}},
      {[](KxAecCtl& t) { t.AddResourceFile("/list"); },
       " -f \"/list\"",
       {"-f", "/list"}},
      {[](KxAecCtl& t) { t.AddNewName("new"); }, " -N \"new\"", {"-N", "new"}},
      {[](KxAecCtl& t) { t.SetAllRules(); }, " -A", {"-A"}},
      {[](KxAecCtl& t) { t.SetAllUseres(); }, " -a", {"-a"}},
      {[](KxAecCtl& t) { t.SetExtended(); }, " -X", {"-X"}},
      {[](KxAecCtl& t) { t.SetDisable(); }, " -D", {"-D"}},
      {[](KxAecCtl& t) { t.SetNoDepend(); }, " -d", {"-d"}},
      {[](KxAecCtl& t) { t.SetRecursive(); }, " -R", {"-R"}},
      {[](KxAecCtl& t) { t.AddArg("--raw"); }, " --raw", {"--raw"}},
      {[](KxAecCtl& t) { t.AddArg("-o", std::string("v")); },
       " -o \"v\"",
       {"-o", "v"}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Appended(c.build), c.text);
    EXPECT_EQ(AppendedArgs(c.build), c.args) << c.text;
  }
}

TEST_F(KxAecCtlTest, AddUsersWithAnEmptyListLeavesTheCommandLineUnchanged) {
  EXPECT_EQ(Appended([](KxAecCtl& t) { t.AddUsers({}); }), "");
  EXPECT_EQ(AppendedArgs([](KxAecCtl& t) { t.AddUsers({}); }), Args{});
}

TEST_F(KxAecCtlTest, AddNewNameWithAnEmptyNameLeavesTheCommandLineUnchanged) {
  EXPECT_EQ(Appended([](KxAecCtl& t) { t.AddNewName(""); }), "");
  EXPECT_EQ(AppendedArgs([](KxAecCtl& t) { t.AddNewName(""); }), Args{});
}

TEST_F(KxAecCtlTest, AddResourcesQuotesEachValueAfterOneBlank) {
  EXPECT_EQ(Appended([](KxAecCtl& t) {
              t.AddResources({"/a b", "/c"});
            }),
            " -r \"/a b\" \"/c\"");
  EXPECT_EQ(AppendedArgs([](KxAecCtl& t) {
              t.AddResources({"/a b", "/c"});
            }),
            (Args{"-r", "/a b", "/c"}));
}

TEST_F(KxAecCtlTest, AValueStartingWithADashIsMarkedAsAValueForTheTool) {
  KxAecCtl tool("rename", true);
  tool.AddRules({"-A"});
  tool.AddNewName("--help");
  tool.AddUsers({"a-b", "-", "--"});
  // The text is built as always; only the argument vector carries the mark.
  EXPECT_EQ(tool.CommandLine(),
            "/opt/korvex/bin/kxaecctl rename -C -v -n \"-A\" -N \"--help\" "
            "-u \"a-b\" \"-\" \"--\"");
  EXPECT_EQ(tool.Arguments(),
            (Args{kTool, "rename", "-C", "-v", "-n", "--", "-A", "-N", "--",
                  "--help", "-u", "a-b", "--", "-", "--", "--"}));
}

TEST_F(KxAecCtlTest, ApplyRunsTheToolWithTheBuiltArguments) {
  Fake(0);
  KxAecCtl tool("add", true);
  tool.AddRules({"r1"});
  tool.AddUsers({"alice", "bob"});
  tool.SetRecursive();
  EXPECT_TRUE(tool.Apply());
  EXPECT_EQ(kxtest::FakeToolCalls("kxaecctl"),
            (std::vector<Args>{
                {"add", "-C", "-v", "-n", "r1", "-u", "alice", "bob", "-R"}}));
  EXPECT_EQ(tool.GetError(), KxAecCtl::kSuccess);
}

TEST_F(KxAecCtlTest, SuccessWithTwoLinesAppendsThemDirectlyAndCommaSeparated) {
  Fake(0, {"first", "second"});
  KxAecCtl tool("reload", true);
  EXPECT_TRUE(tool.Apply());
  EXPECT_EQ(tool.GetErrorDescription(), "Success executionfirst, second");
  EXPECT_EQ(tool.GetInvalidObjects(), (Args{"first", "second"}));
}

TEST_F(KxAecCtlTest, UsersNotFoundListsTheOffendingUsers) {
  Fake(4, {"bob", "carol"});
  KxAecCtl tool("add", true);
  EXPECT_FALSE(tool.Apply());
  EXPECT_EQ(tool.GetError(), KxAecCtl::kUsersNotFound);
  EXPECT_EQ(tool.GetErrorDescription(), "Users not found: bob, carol");
}

TEST_F(KxAecCtlTest, EveryKnownExitCodeHasItsDescription) {
  const std::vector<std::pair<int, std::string>> table = {
      {0, "Success execution"},
      {1, error::kUnknown},
      {2, "Invalid argument"},
      {3, "Operation canceled"},
      {4, "Users not found: "},
      {5, "Groups not found: "},
      {6, "Kernel interaction error"},
      {7, "Users not found in the rule: "},
      {8, "Groups not found in the rule: "},
      {9, "Resources not found in the rule: "},
      {10, error::kInvalidConfig},
      {11, "Config does not exist"},
      {12, "Error writing to config file"},
      {13, "Centralized control is enabled"},
      {14, "Rule does not exists: "},
      {15, "Resource list is empty"},
      {16, "Rule is system immutable rule: "},
      {17, "Rule is allowed for all users"},
      {18, "The rule is already exist: "},
      {19, "Invalid date/time"},
      {20, "Integrity calculation error"},
      {21, "Violation of the integrity of the rules"},
      {23, "Error communicating with the service management"},
      {24,
       "An update of AEC IC DB is required. Detected integrity violation "
       "in config files: "},
      {25, "Resource does not exist: "},
  };
  for (const auto& entry : table) {
    Fake(entry.first);
    KxAecCtl alone("reload", true);
    EXPECT_EQ(alone.Apply(), entry.first == 0);
    EXPECT_EQ(alone.GetError(), entry.first);
    EXPECT_EQ(alone.GetErrorDescription(), entry.second) << entry.first;

    Fake(entry.first, {"obj1", "obj2"});
    KxAecCtl with_output("reload", true);
    with_output.Apply();
    EXPECT_EQ(with_output.GetErrorDescription(), entry.second + "obj1, obj2")
        << entry.first;
  }
  EXPECT_FALSE(log_.Contains("unknown kxaecctl error"));
}

TEST_F(KxAecCtlTest, AnUnknownExitCodeGivesTheUnknownTextAndIsLogged) {
  for (int code : {99, 22, 26}) {
    Fake(code, {"ignored"});
    KxAecCtl tool("reload", true);
    EXPECT_FALSE(tool.Apply());
    EXPECT_EQ(tool.GetError(), code);
    EXPECT_EQ(tool.GetErrorDescription(), std::string(error::kUnknown));
    EXPECT_TRUE(
        log_.Contains("unknown kxaecctl error " + std::to_string(code)));
  }
}

TEST_F(KxAecCtlTest, AToolKilledBySignalCountsAsSuccess) {
  Fake(7, {"printed"}, false, SIGKILL);
  KxAecCtl tool("reload", true);
  EXPECT_TRUE(tool.Apply());
  EXPECT_EQ(tool.GetError(), KxAecCtl::kSuccess);
  EXPECT_EQ(tool.GetInvalidObjects(), (Args{"printed"}));
}

TEST_F(KxAecCtlTest, AFailingWaitGivesStatusMinusOne) {
  Fake(0);
  // With SIGCHLD ignored the kernel reaps the child itself and waiting
  // fails, as pclose then does.
  struct sigaction ignore {
  }, previous{};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGCHLD, &ignore, &previous);
  KxAecCtl tool("reload", true);
  const bool ok = tool.Apply();
  sigaction(SIGCHLD, &previous, nullptr);
  EXPECT_FALSE(ok);
  EXPECT_EQ(tool.GetError(), -1);
  EXPECT_EQ(tool.GetErrorDescription(), std::string(error::kUnknown));
  EXPECT_TRUE(log_.Contains("unknown kxaecctl error -1"));
}

TEST_F(KxAecCtlTest, AMissingToolCannotBeStarted) {
  const int descriptors = rulestest::OpenDescriptorCount();
  KxAecCtl tool("reload", true);
  try {
    tool.Apply();
    FAIL() << "Apply ran a missing tool";
  } catch (const PluginException& e) {
    EXPECT_EQ(std::string(e.what()), error::kUnknown);
  }
  EXPECT_TRUE(log_.Contains("kxaecctl popen error 2"));  // ENOENT
  EXPECT_EQ(tool.GetError(), KxAecCtl::kSuccess);
  EXPECT_FALSE(rulestest::HasChildren());
  EXPECT_EQ(rulestest::OpenDescriptorCount(), descriptors);
}

TEST_F(KxAecCtlTest, AToolThatIsNotExecutableCannotBeStarted) {
  kxtest::WriteFile(kTool, "#!/bin/sh\nexit 0\n", 0644);
  KxAecCtl tool("reload", true);
  EXPECT_THROW(tool.Apply(), PluginException);
  EXPECT_TRUE(log_.Contains("kxaecctl popen error 13"));  // EACCES
  EXPECT_FALSE(rulestest::HasChildren());
}

TEST_F(KxAecCtlTest, OutputWithoutTrailingNewlineIsALengthError) {
  Fake(5, {"bob", "carol"}, true);
  const int descriptors = rulestest::OpenDescriptorCount();
  KxAecCtl tool("add", true);
  EXPECT_THROW(tool.Apply(), std::length_error);
  // The lines before the unterminated one were kept; the status was not.
  EXPECT_EQ(tool.GetInvalidObjects(), (Args{"bob"}));
  EXPECT_EQ(tool.GetError(), KxAecCtl::kSuccess);
  EXPECT_FALSE(rulestest::HasChildren());
  EXPECT_EQ(rulestest::OpenDescriptorCount(), descriptors);
}

TEST_F(KxAecCtlTest, ALineOf4096BytesOrMoreIsALengthError) {
  Fake(0, {std::string(5000, 'x')});
  KxAecCtl tool("add", true);
  EXPECT_THROW(tool.Apply(), std::length_error);
  EXPECT_FALSE(rulestest::HasChildren());
}

TEST_F(KxAecCtlTest, ALineThatFitsTheBufferIsReadWhole) {
  const std::string longest(4094, 'y');  // 4094 + newline = 4095 bytes
  Fake(0, {longest, "", "after"});
  KxAecCtl tool("add", true);
  EXPECT_TRUE(tool.Apply());
  EXPECT_EQ(tool.GetInvalidObjects(), (Args{longest, "", "after"}));
}

TEST_F(KxAecCtlTest, ASecondApplyRunsAgainAndAppendsItsOutput) {
  Fake(0, {"line"});
  KxAecCtl tool("reload", true);
  tool.Apply();
  tool.Apply();
  EXPECT_EQ(tool.GetInvalidObjects(), (Args{"line", "line"}));
  EXPECT_EQ(kxtest::FakeToolCalls("kxaecctl").size(), 2u);
}

TEST_F(KxAecCtlTest, ManyRunsLeaveNoDescriptorOrChildBehind) {
  Fake(3, {"a", "b"});
  const int descriptors = rulestest::OpenDescriptorCount();
  for (int i = 0; i < 20; ++i) {
    KxAecCtl tool("reload", true);
    tool.Apply();
  }
  EXPECT_EQ(rulestest::OpenDescriptorCount(), descriptors);
  EXPECT_FALSE(rulestest::HasChildren());
}

TEST_F(KxAecCtlTest, HostileValuesReachTheToolAsSingleArgumentsAndRunNothing) {
  Fake(0);
  const Args hostile = {
      "$(touch /opt/korvex/pwned1)",
      "`touch /opt/korvex/pwned2`",
      "x\"; touch /opt/korvex/pwned3; echo \"",
      "a; touch /opt/korvex/pwned4",
      "line\nbreak && touch /opt/korvex/pwned5",
      "'single' | touch /opt/korvex/pwned6",
  };
  KxAecCtl tool("add", true);
  tool.AddRules({hostile[0]});
  tool.AddUsers({hostile[1], hostile[2]});
  tool.AddGroups({hostile[3]});
  tool.AddResources({hostile[4]});
  tool.AddResourceFile(hostile[5]);
  EXPECT_TRUE(tool.Apply());
  EXPECT_EQ(kxtest::FakeToolCalls("kxaecctl"),
            (std::vector<Args>{{"add", "-C", "-v", "-n", hostile[0], "-u",
                                hostile[1], hostile[2], "-g", hostile[3], "-r",
                                hostile[4], "-f", hostile[5]}}));
  for (int i = 1; i <= 6; ++i) {
    EXPECT_FALSE(kxtest::Exists("/opt/korvex/pwned" + std::to_string(i))) << i;
  }
  // The text is still built as it always was, quotes unescaped.
  EXPECT_NE(tool.CommandLine().find(" -n \"$(touch /opt/korvex/pwned1)\""),
            std::string::npos);
}
