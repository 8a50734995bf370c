// kxaecctl's command line: words, options, values, help.
#include <string>
#include <vector>

#include "kxaecctl/command_line.h"
#include "kxaecctl/tool_error.h"
#include "tools_test_util.h"

namespace {

using aectool::Command;
using aectool::Invocation;
using aectool::ParseCommandLine;
using Args = std::vector<std::string>;

int ParseFailure(const Args& args) {
  try {
    ParseCommandLine(args);
  } catch (const aectool::ToolError& e) {
    return e.code();
  }
  return 0;
}

}  // namespace

TEST(KxaecctlCommandLineTest, AValueOptionTakesTheArgumentsUpToTheNextOption) {
  const Invocation line = ParseCommandLine(
      {"add", "-C", "-v", "-n", "r1", "-u", "root", "bin", "-g", "adm", "-r",
       "/a b", "/c", "-R", "-d", "-D", "-X"});
  EXPECT_EQ(line.command, Command::kAdd);
  EXPECT_TRUE(line.check);
  EXPECT_TRUE(line.verbose);
  EXPECT_EQ(line.names, (Args{"r1"}));
  EXPECT_EQ(line.users, (Args{"root", "bin"}));
  EXPECT_EQ(line.groups, (Args{"adm"}));
  EXPECT_EQ(line.resources, (Args{"/a b", "/c"}));
  EXPECT_TRUE(line.recursive && line.no_depend && line.disable &&
              line.extended);
  EXPECT_FALSE(line.all_users || line.all_rules || line.whitelist);
}

TEST(KxaecctlCommandLineTest,
     ValuesArriveExactlyAsGivenQuotesAndDollarsIncluded) {
  const Invocation line = ParseCommandLine(
      {"add", "-n", "a\"b", "-r", "/x/$(touch y)", "/z;w", "-u", "--v"});
  EXPECT_EQ(line.names, (Args{"a\"b"}));
  EXPECT_EQ(line.resources, (Args{"/x/$(touch y)", "/z;w"}));
  EXPECT_EQ(line.users, (Args{"--v"}));
}

TEST(KxaecctlCommandLineTest, RepeatedValueOptionsAccumulate) {
  const Invocation line = ParseCommandLine({"rm", "-n", "a", "-n", "b", "c"});
  EXPECT_EQ(line.names, (Args{"a", "b", "c"}));
}

TEST(KxaecctlCommandLineTest, FileAndNewNameTakeOneValueEach) {
  const Invocation line =
      ParseCommandLine({"rename", "-n", "old", "-N", "new"});
  EXPECT_EQ(line.new_name.value_or(""), "new");
  EXPECT_EQ(ParseFailure({"export", "-n", "r", "-f", "/a", "/b"}),
            KxAecCtl::kInvalidArgument);
  EXPECT_EQ(ParseFailure({"export", "-n", "r", "-f", "/a", "-f", "/b"}),
            KxAecCtl::kInvalidArgument);
}

TEST(KxaecctlCommandLineTest, UnknownWordsAndOptionsAreInvalidArguments) {
  EXPECT_EQ(ParseFailure({"frobnicate"}), KxAecCtl::kInvalidArgument);
  EXPECT_EQ(ParseFailure({"add", "-Z"}), KxAecCtl::kInvalidArgument);
  EXPECT_EQ(ParseFailure({"add", "stray"}), KxAecCtl::kInvalidArgument);
  EXPECT_EQ(ParseFailure({"add", "-R", "stray"}), KxAecCtl::kInvalidArgument);
}

TEST(KxaecctlCommandLineTest, AnOptionTheCommandDoesNotTakeIsInvalid) {
  EXPECT_EQ(ParseFailure({"rm", "-X"}), KxAecCtl::kInvalidArgument);
  EXPECT_EQ(ParseFailure({"enable", "-u", "root"}), KxAecCtl::kInvalidArgument);
  EXPECT_EQ(ParseFailure({"reload", "-n", "r"}), KxAecCtl::kInvalidArgument);
  EXPECT_EQ(ParseFailure({"confirm", "-C"}), KxAecCtl::kInvalidArgument);
  EXPECT_EQ(ParseFailure({"add", "-w"}), KxAecCtl::kInvalidArgument);
}

TEST(KxaecctlCommandLineTest, AValueOptionWithoutValuesIsInvalid) {
  EXPECT_EQ(ParseFailure({"add", "-n"}), KxAecCtl::kInvalidArgument);
  EXPECT_EQ(ParseFailure({"add", "-n", "-u", "root"}),
            KxAecCtl::kInvalidArgument);
}

TEST(KxaecctlCommandLineTest, EveryCommandWordIsKnown) {
  const std::vector<std::pair<std::string, Command>> words = {
      {"add", Command::kAdd},         {"rm", Command::kRm},
      {"update", Command::kUpdate},   {"enable", Command::kEnable},
      {"disable", Command::kDisable}, {"rename", Command::kRename},
      {"export", Command::kExport},   {"reload", Command::kReload},
      {"restart", Command::kRestart}, {"confirm", Command::kConfirm}};
  for (const auto& [word, command] : words) {
    const Invocation line = ParseCommandLine({word});
    EXPECT_EQ(line.command, command) << word;
    EXPECT_EQ(line.word, word);
  }
}

class KxaecctlHelpTest : public toolstest::ToolsTest {};

TEST_F(KxaecctlHelpTest, TheToolAndEveryCommandWordAnswerHelp) {
  const auto tool = Ctl({"--help"});
  EXPECT_EQ(tool.exit_code, 0);
  EXPECT_EQ(tool.out.rfind("Usage: kxaecctl COMMAND", 0), 0u) << tool.out;
  for (const std::string word :
       {"add", "rm", "update", "enable", "disable", "rename", "export",
        "reload", "restart", "confirm"}) {
    const auto run = Ctl({word, "--help"});
    EXPECT_EQ(run.exit_code, 0) << word;
    EXPECT_EQ(run.out.rfind("Usage: kxaecctl " + word, 0), 0u) << run.out;
  }
  // Help changes nothing, even with options that would.
  EXPECT_EQ(Ctl({"rm", "-A", "--help"}).exit_code, 0);
  EXPECT_FALSE(kxtest::Exists(toolstest::kLoadedSet));
}

TEST_F(KxaecctlHelpTest, NoArgumentsPrintTheToolHelp) {
  const auto run = Ctl({});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_NE(run.out.find("Commands:"), std::string::npos);
}

TEST_F(KxaecctlHelpTest, ABadCommandLineExitsTwoAndPointsToHelp) {
  const auto run = Ctl({"add", "-Q"});
  EXPECT_EQ(run.exit_code, KxAecCtl::kInvalidArgument);
  EXPECT_EQ(run.out, "");
  EXPECT_NE(run.err.find("kxaecctl --help"), std::string::npos);
}

TEST(KxaecctlCommandLineTest, TheArgumentAfterADoubleDashIsAValue) {
  const Invocation line = ParseCommandLine(
      {"rename", "-C", "-v", "-n", "--", "-A", "-N", "--", "--help"});
  EXPECT_FALSE(line.help);
  EXPECT_FALSE(line.all_rules);
  EXPECT_EQ(line.names, (Args{"-A"}));
  EXPECT_EQ(line.new_name, std::string("--help"));
  EXPECT_EQ(ParseCommandLine({"rm", "-u", "a", "--", "--", "--", "-u"}).users,
            (Args{"a", "--", "-u"}));
  // Only between a value option and a value.
  EXPECT_EQ(ParseFailure({"rm", "--", "-A"}), KxAecCtl::kInvalidArgument);
  EXPECT_EQ(ParseFailure({"rm", "-A", "--", "x"}), KxAecCtl::kInvalidArgument);
  EXPECT_EQ(ParseFailure({"rm", "-n", "--"}), KxAecCtl::kInvalidArgument);
}

TEST(KxaecctlCommandLineTest, AValueHoldingAControlCharacterIsRefused) {
  for (const std::string value :
       {"a\tb", "a\nb", "r\r", "\x1b[0m", "del\x7f", "-\x01"}) {
    EXPECT_EQ(ParseFailure({"add", "-n", value, "-r", "/a"}),
              KxAecCtl::kInvalidArgument)
        << value;
    EXPECT_EQ(ParseFailure({"add", "-n", "r1", "-r", "--", value}),
              KxAecCtl::kInvalidArgument)
        << value;
  }
  EXPECT_EQ(ParseCommandLine({"add", "-n", "caf\xc3\xa9", "-r", "/a"}).names,
            (Args{"caf\xc3\xa9"}));
}
