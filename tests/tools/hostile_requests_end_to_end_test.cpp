// Requests an attacker or a careless administrator may send, through kxhost
// with the real kxaecctl and kxaide: export targets inside the installation
// and ones that are not regular files, values too long for one output line
// of the tool, values that look like the tool's options, and values holding
// a NUL or another control character.
#include <sys/stat.h>
#include <unistd.h>

#include <boost/property_tree/ptree.hpp>
#include <string>
#include <vector>

#include "aec_policies/aechardmodeconfirmation.h"
#include "lib/xml_document.h"
#include "tools_test_util.h"

namespace {

namespace pt = boost::property_tree;
using toolstest::RulePath;

const std::string kExportArea = "/opt/korvex/var/export/";
const std::string kConfirmState = "/opt/korvex/var/aec_confirm";

class HostileRequestsTest : public toolstest::TwoResourcesTest {
 protected:
  void SetUp() override {
    TwoResourcesTest::SetUp();
    kxtest::WriteFile(kExportArea + ".keep", "");
    Seal();
  }

  kxtest::RunResult Run(const std::string& request) {
    return kxtest::RunKxhost(
        {"--root", root_.dir(), "--plugin", KX_PLUGIN_PATH, "exec", "-"},
        request);
  }

  // Runs one request that must be answered; the reply's tree.
  pt::ptree Exec(const std::string& request) {
    const auto run = Run(request);
    EXPECT_EQ(run.exit_code, 0) << run.err << run.out;
    if (run.exit_code != 0) return pt::ptree();
    return kxhost::TreeOf(*kxhost::ParseXml(run.out));
  }

  void AddRule(const std::string& name) {
    const auto reply =
        Exec("<request command=\"add\"><rule name=\"" + name +
             "\" no-depend=\"1\"><r>" + a_ + "</r></rule></request>");
    ASSERT_EQ(reply.get<std::string>("add.rule.result", ""), "1");
  }

  pt::ptree Export(const std::string& file) {
    return Exec("<request command=\"export\" name=\"r1\" file=\"" + file +
                "\"/>");
  }

};

bool IsFifo(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 && S_ISFIFO(info.st_mode);
}

}  // namespace

TEST_F(HostileRequestsTest, ExportNeverReplacesAProgramOfTheInstallation) {
  AddRule("r1");
  const std::string tool = kxtest::ReadFile(toolstest::kKxaecctl);
  const auto reply = Export(toolstest::kKxaecctl);
  EXPECT_EQ(reply.get<std::string>("export.result", ""), "0");
  EXPECT_EQ(reply.get<std::string>("export.error_desc", ""),
            "Invalid argument");
  EXPECT_TRUE(kxtest::ReadFile(toolstest::kKxaecctl) == tool)
      << "the tool was replaced";
  // The next command still finds a working tool.
  const auto next = Exec(
      "<request command=\"add\"><rule name=\"r2\" no-depend=\"1\"><r>" + b_ +
      "</r></rule></request>");
  EXPECT_EQ(next.get<std::string>("add.rule.result", ""), "1");
  EXPECT_TRUE(kxtest::Exists(RulePath("r2")));
}

TEST_F(HostileRequestsTest, ExportNeverReplacesTheHardModeConfirmation) {
  AddRule("r1");
  AecHardModeConfirmation::Get()->RequiereConfirmation();
  ASSERT_TRUE(AecHardModeConfirmation::Get()->Check(true));
  // Whatever the host's start makes of the round, a run that exports
  // nothing leaves it so: the state before the export.
  Exec("<request command=\"reload\"/>");
  const std::string state = kxtest::ReadFile(kConfirmState);
  const int state_number = AecHardModeConfirmation::Get()->State();

  const auto reply = Export(kConfirmState);
  EXPECT_EQ(reply.get<std::string>("export.result", ""), "0");
  EXPECT_EQ(reply.get<std::string>("export.error_desc", ""),
            "Invalid argument");
  EXPECT_EQ(kxtest::ReadFile(kConfirmState), state);
  EXPECT_EQ(AecHardModeConfirmation::Get()->State(), state_number);
  // Through a path that only leads there by a link, too.
  ASSERT_EQ(symlink("/opt/korvex/var", (kExportArea + "up").c_str()), 0);
  EXPECT_EQ(Export(kExportArea + "up/aec_confirm")
                .get<std::string>("export.result", ""),
            "0");
  EXPECT_EQ(kxtest::ReadFile(kConfirmState), state);
}

TEST_F(HostileRequestsTest, ExportOntoAFifoIsRefusedWithoutBlocking) {
  AddRule("r1");
  const std::string fifo = kExportArea + "pipe";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const auto reply = Export(fifo);
  EXPECT_EQ(reply.get<std::string>("export.result", ""), "0");
  EXPECT_EQ(reply.get<std::string>("export.error_desc", ""),
            "Error writing to config file");
  EXPECT_TRUE(IsFifo(fifo));
  // A link is not followed nor replaced either.
  ASSERT_EQ(symlink("/tmp/kx-elsewhere", (kExportArea + "link").c_str()), 0);
  EXPECT_EQ(
      Export(kExportArea + "link").get<std::string>("export.error_desc", ""),
      "Error writing to config file");
}

TEST_F(HostileRequestsTest, ALongValueInARemovalIsAnsweredAfterTheRuleWent) {
  AddRule("r1");
  const std::string user(5000, 'u');
  const auto run = Run(
      "<request command=\"remove\"><rule><name>r1</name></rule><whitelist><u>" +
      user + "</u></whitelist></request>");
  ASSERT_EQ(run.exit_code, 0) << run.err;
  const pt::ptree reply = kxhost::TreeOf(*kxhost::ParseXml(run.out));
  EXPECT_EQ(reply.get<std::string>("remove.rule.result", ""), "1");
  EXPECT_FALSE(kxtest::Exists(RulePath("r1")));
  EXPECT_EQ(reply.get<std::string>("remove.whitelist.result", ""), "0");
  const std::string why =
      reply.get<std::string>("remove.whitelist.error_desc", "");
  EXPECT_EQ(why.rfind("Users not found in the rule: uuuu", 0), 0u) << why;
  EXPECT_NE(why.find("... (5000 bytes)"), std::string::npos) << why;
  EXPECT_LT(why.size(), 1200u);
}

TEST_F(HostileRequestsTest, LongValuesInAddAndEditAreAnswered) {
  const std::string user(5000, 'u');
  const std::string path = "/" + std::string(4000, 'p');
  auto reply = Exec("<request command=\"add\"><rule name=\"r1\"><u>" + user +
                    "</u><r>" + a_ + "</r></rule></request>");
  EXPECT_EQ(reply.get<std::string>("add.rule.result", ""), "0");
  EXPECT_EQ(reply.get<std::string>("add.rule.error_desc", "").rfind(
                "Users not found: uuu", 0),
            0u);
  EXPECT_FALSE(kxtest::Exists(RulePath("r1")));

  AddRule("r1");
  reply = Exec("<request command=\"edit\"><rule name=\"r1\"><add><r>" + path +
               "</r></add><update><g>" + user +
               "</g></update></rule></request>");
  EXPECT_EQ(reply.get<std::string>("edit.add.result", ""), "0");
  EXPECT_NE(reply.get<std::string>("edit.add.error_desc", "")
                .find("Resource does not exist: /ppp"),
            std::string::npos);
  EXPECT_EQ(reply.get<std::string>("edit.update.result", ""), "0");
  EXPECT_NE(reply.get<std::string>("edit.update.error_desc", "")
                .find("Groups not found: uuu"),
            std::string::npos);

  // Names too long for a rule are answered as well.
  const std::string name(5000, 'n');
  reply = Exec("<request command=\"add\"><rule name=\"" + name + "\"><r>" +
               a_ + "</r></rule></request>");
  EXPECT_EQ(reply.get<std::string>("add.rule.result", ""), "0");
  reply = Exec("<request command=\"edit\"><rule name=\"r1\" rename=\"" + name +
               "\"/></request>");
  EXPECT_EQ(reply.get<std::string>("edit.rename.result", ""), "0");
  EXPECT_EQ(reply.get<std::string>("edit.rename.error_desc", ""),
            "Invalid argument");
  EXPECT_TRUE(kxtest::Exists(RulePath("r1")));
}

TEST_F(HostileRequestsTest, AValueThatLooksLikeAnOptionIsAValue) {
  AddRule("r1");
  auto reply = Exec(
      "<request command=\"edit\"><rule name=\"r1\" rename=\"--help\"/>"
      "</request>");
  // The rename is done, so its success is true.
  EXPECT_EQ(reply.get<std::string>("edit.rename.result", ""), "1");
  EXPECT_EQ(reply.get<std::string>("edit.rename.error_desc", "<none>"),
            "<none>");
  EXPECT_FALSE(kxtest::Exists(RulePath("r1")));
  EXPECT_TRUE(kxtest::Exists(RulePath("--help")));

  // "-A" as a rule name to remove is that name, never "all rules".
  AddRule("r2");
  reply = Exec(
      "<request command=\"remove\"><rule><name>-A</name></rule></request>");
  EXPECT_EQ(reply.get<std::string>("remove.rule.result", ""), "0");
  EXPECT_EQ(reply.get<std::string>("remove.rule.error_desc", ""),
            "Rule does not exists: -A");
  EXPECT_TRUE(kxtest::Exists(RulePath("r2")));
  EXPECT_TRUE(kxtest::Exists(RulePath("--help")));
}

TEST_F(HostileRequestsTest, ANulInANameRefusesTheRequestInsteadOfCuttingIt) {
  for (const std::string& request : std::vector<std::string>{
           "<request command=\"add\"><rule name=\"evil&#0;../../x\" "
        "no-depend=\"1\"><r>" +
            a_ + "</r></rule></request>",
        "<request command=\"add\"><rule name=\"evil&#1;\" no-depend=\"1\"><r>" +
            a_ + "</r></rule></request>",
        "<request command=\"remove\"><rule><name>evil&#27;[0m</name></rule>"
        "</request>"}) {
    const auto run = Run(request);
    EXPECT_EQ(run.exit_code, 2) << request << "\n" << run.out;
    EXPECT_NE(run.err.find("malformed XML: character U+00"), std::string::npos)
        << run.err;
    EXPECT_EQ(run.out, "");
  }
  EXPECT_EQ(toolstest::RuleFiles(), std::set<std::string>{});
}

TEST_F(HostileRequestsTest, ATabOrLineBreakInANameIsRefusedByTheTool) {
  for (const std::string name : {"a&#9;b", "a&#10;b", "a&#13;"}) {
    const auto reply =
        Exec("<request command=\"add\"><rule name=\"" + name +
             "\" no-depend=\"1\"><r>" + a_ + "</r></rule></request>");
    EXPECT_EQ(reply.get<std::string>("add.rule.result", ""), "0") << name;
    EXPECT_EQ(reply.get<std::string>("add.rule.error_desc", ""),
              "Invalid argument")
        << name;
  }
  EXPECT_EQ(toolstest::RuleFiles(), std::set<std::string>{});
}
