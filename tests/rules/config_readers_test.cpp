// The configuration readers under kxhost: a FIFO where a rule, whitelist or
// exceptions file belongs must not hang "get" or a rules import, and a rule
// file larger than the bound is refused with a log line while the other
// rules are still answered.
//
// kxhost runs under timeout(1): a reader that blocks shows as a killed run,
// not as a hanging test.
#include <sys/stat.h>
#include <unistd.h>

#include <boost/property_tree/json_parser.hpp>
#include <string>
#include <vector>

#include "aec_config_read.h"
#include "kxtest.h"
#include "lib/xml_document.h"
#include "rules_test_util.h"

namespace pt = boost::property_tree;
using rulestest::RuleSpec;

namespace {

constexpr int kSecondsAllowed = 30;
constexpr int kTimedOut = 124;  // timeout(1)'s exit code

class ConfigReadersTest : public kxtest::SandboxTest {
 protected:
  void SetUp() override {
    kxtest::InstallFakeTool("kxaecctl", {});
    kxtest::InstallFakeTool("kxaide", {});
  }

  // kxhost --root <root> -v STEPS, standard input `input`, killed after
  // kSecondsAllowed.
  kxtest::RunResult Kxhost(const std::vector<std::string>& steps,
                           const std::string& input) {
    std::vector<std::string> argv = {
        "/usr/bin/timeout", "--signal=KILL", std::to_string(kSecondsAllowed),
        KX_KXHOST_PATH,     "--root",        root_.dir(),
        "--plugin",         KX_PLUGIN_PATH,  "-v"};
    argv.insert(argv.end(), steps.begin(), steps.end());
    return kxtest::RunProgram(argv, input);
  }

  pt::ptree Reply(const kxtest::RunResult& run) {
    return kxhost::TreeOf(*kxhost::ParseXml(run.out));
  }

  void MakeFifo(const std::string& path) {
    ASSERT_EQ(::mkfifo(path.c_str(), 0644), 0) << path;
  }
};

}  // namespace

TEST_F(ConfigReadersTest, AFifoInTheRulesDirectoryDoesNotHangGet) {
  rulestest::WriteRuleFile(RuleSpec{
      "r1", false, false, false, true, {"alice"}, {}, {"/usr/bin/make"}});
  MakeFifo(std::string(rulestest::kRulesDir) + "f.conf");
  const auto listing =
      Kxhost({"exec", "-"},
             "<request command=\"get\" whitelist=\"1\"><rule/></request>");
  ASSERT_NE(listing.exit_code, kTimedOut) << "get hung on the FIFO";
  ASSERT_EQ(listing.exit_code, 0) << listing.err;
  EXPECT_NE(listing.err.find("not a regular file"), std::string::npos)
      << listing.err;
  EXPECT_EQ(Reply(listing).get<std::string>("get.whitelist.result"), "1")
      << listing.out;

  const auto named = Kxhost(
      {"exec", "-"}, "<request command=\"get\"><rule>r1</rule></request>");
  ASSERT_EQ(named.exit_code, 0) << named.err;
  EXPECT_EQ(Reply(named).get<std::string>("get.rules.result"), "1")
      << named.out;
  EXPECT_EQ(Reply(named).get<std::string>("get.rules.rule.name"), "r1");
}

TEST_F(ConfigReadersTest, AFifoInTheRulesDirectoryDoesNotHangARulesImport) {
  RuleSpec imported{"imported"};
  imported.resources = {"/usr/bin/make"};
  MakeFifo(std::string(rulestest::kRulesDir) + "f.conf");
  const auto run = Kxhost({"import-policies", "-"},
                          rulestest::RulesImportJson({imported}, "dorvi"));
  ASSERT_NE(run.exit_code, kTimedOut) << "the rules import hung on the FIFO";
  EXPECT_NE(run.err.find("not a regular file"), std::string::npos) << run.err;
}

TEST_F(ConfigReadersTest, AFifoAsExceptionsFileDoesNotHangGet) {
  const std::string exceptions =
      std::string(rulestest::kConfigDir) + "resource-exception.conf";
  ::unlink(exceptions.c_str());
  MakeFifo(exceptions);
  const auto run = Kxhost({"exec", "-"},
                          "<request command=\"get\" whitelist=\"1\" "
                          "resource-exception=\"1\"/>");
  ASSERT_NE(run.exit_code, kTimedOut) << "get hung on the FIFO";
  ASSERT_EQ(run.exit_code, 0) << run.err;
  const pt::ptree reply = Reply(run);
  EXPECT_EQ(reply.get<std::string>("get.whitelist.result"), "1") << run.out;
  EXPECT_EQ(reply.get<std::string>("get.resource-exception.result"), "0")
      << run.out;
  EXPECT_NE(run.err.find("resource-exception.conf: not a regular file"),
            std::string::npos)
      << run.err;
}

// The plug-in does not start without a readable whitelist (as with one that
// does not parse); with a FIFO it says so at once instead of waiting.
TEST_F(ConfigReadersTest, AFifoAsWhitelistEndsTheStartWithoutWaiting) {
  const std::string whitelist =
      std::string(rulestest::kConfigDir) + "white-list.config";
  ::unlink(whitelist.c_str());
  MakeFifo(whitelist);
  const auto run =
      Kxhost({"exec", "-"}, "<request command=\"get\" whitelist=\"1\"/>");
  ASSERT_NE(run.exit_code, kTimedOut) << "the start hung on the FIFO";
  EXPECT_EQ(run.exit_code, 1) << run.err;
  EXPECT_NE(run.err.find("white-list.config: not a regular file"),
            std::string::npos)
      << run.err;
}

TEST_F(ConfigReadersTest,
       ARuleFileOverTheBoundIsRefusedAndTheOtherRulesAnswered) {
  rulestest::WriteRuleFile(RuleSpec{
      "r1", false, false, false, true, {"alice"}, {}, {"/usr/bin/make"}});
  // A well-formed rule, only too large: the refusal is the size's.
  RuleSpec big{"big"};
  const std::string path(200, 'p');
  for (std::size_t bytes = 0; bytes <= aec::kMaxRuleFileBytes; bytes += 205) {
    big.resources.push_back("/" + path + std::to_string(bytes));
  }
  rulestest::WriteRuleFile(big);
  struct stat info;
  ASSERT_EQ(
      ::stat((std::string(rulestest::kRulesDir) + "big.conf").c_str(), &info),
      0);
  ASSERT_GT(static_cast<std::size_t>(info.st_size), aec::kMaxRuleFileBytes);

  const auto refused = Kxhost(
      {"exec", "-"}, "<request command=\"get\"><rule>big</rule></request>");
  ASSERT_EQ(refused.exit_code, 0) << refused.err;
  EXPECT_EQ(Reply(refused).get<std::string>("get.rules.result"), "0");
  EXPECT_NE(refused.err.find("big.conf: larger than " +
                             std::to_string(aec::kMaxRuleFileBytes) + " bytes"),
            std::string::npos)
      << refused.err.substr(0, 2000);

  const auto other = Kxhost(
      {"exec", "-"}, "<request command=\"get\"><rule>r1</rule></request>");
  ASSERT_EQ(other.exit_code, 0) << other.err;
  EXPECT_EQ(Reply(other).get<std::string>("get.rules.result"), "1");
  EXPECT_EQ(Reply(other).get<std::string>("get.rules.rule.name"), "r1");
}
