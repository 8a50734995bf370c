// kxhost end to end: steps, output and exit codes.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <boost/filesystem.hpp>
#include <string>
#include <vector>

#include "host/crypto.h"
#include "kxtest.h"

namespace {

namespace fs = boost::filesystem;

bool HasOneLine(const std::string& text) {
  return !text.empty() && text.find('\n') == text.size() - 1;
}

// A fresh, unseeded directory for --root, as an administrator would pass.
class Kxhost : public kxtest::SandboxTest {
 protected:
  void SetUp() override {
    char name[] = "/tmp/kxhost-root-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    dir_ = name;
  }
  void TearDown() override {
    if (dir_ != root_.dir()) fs::remove_all(dir_);
  }

  kxtest::RunResult Run(std::vector<std::string> steps,
                        const std::string& input = "", bool verbose = false) {
    std::vector<std::string> args = {"--root", dir_, "--plugin",
                                     KX_PLUGIN_PATH};
    if (verbose) args.push_back("-v");
    args.insert(args.end(), steps.begin(), steps.end());
    return kxtest::RunKxhost(args, input);
  }
  std::string Events() {
    const std::string path = dir_ + "/var/log/kxhost-events.log";
    return kxtest::Exists(path) ? kxtest::ReadFile(path) : std::string();
  }
  std::string WriteInput(const std::string& name, const std::string& text) {
    const std::string path = root_.dir() + "/" + name;
    kxtest::WriteFile(path, text);
    return path;
  }
  // Reads one value of conf.network_plugin_config under the --root dir.
  std::vector<std::string> SettingValues(const std::string& name) {
    std::vector<std::string> values;
    sqlite3* db = nullptr;
    const std::string path = dir_ + "/usr/db/kx_settings.db";
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) !=
        SQLITE_OK) {
      sqlite3_close(db);
      return values;
    }
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db,
                           "SELECT value FROM network_plugin_config "
                           "WHERE name = ?1",
                           -1, &statement, nullptr) == SQLITE_OK) {
      sqlite3_bind_text(statement, 1, name.c_str(), -1, SQLITE_TRANSIENT);
      while (sqlite3_step(statement) == SQLITE_ROW) {
        values.emplace_back(
            reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)));
      }
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return values;
  }

  std::string dir_;
};

TEST_F(Kxhost, HelpListsOptionsStepsAndExitCodes) {
  const auto r = kxtest::RunKxhost({"--help"});
  EXPECT_EQ(r.exit_code, 0);
  for (const char* text :
       {"--root DIR", "--plugin PATH", "-v", "exec FILE|-", "policies",
        "set-policies FILE", "import-policies FILE", "info", "state",
        "store-password", "setting NAME VALUE", "exit codes"}) {
    EXPECT_NE(r.out.find(text), std::string::npos) << text;
  }
  EXPECT_EQ(r.err, "");
}

TEST_F(Kxhost, InfoPrintsNameAndDescription) {
  const auto r = Run({"info"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "name: aec\ndescription: Application execution control plugin\n");
  EXPECT_EQ(r.err, "");
}

TEST_F(Kxhost, RootIsSeededLikeAFreshInstallation) {
  ASSERT_EQ(Run({"info"}).exit_code, 0);
  EXPECT_TRUE(fs::is_directory(dir_ + "/etc/aec/rules"));
  EXPECT_TRUE(kxtest::Exists(dir_ + "/etc/aec/white-list.config"));
  EXPECT_TRUE(kxtest::Exists(dir_ + "/usr/db/kx_settings.db"));
  // plugin_init told the clients, in the events file of the root.
  EXPECT_NE(Events().find("update_clients\taec\n"), std::string::npos);
}

TEST_F(Kxhost, StatePrintsTheBusyFlag) {
  const auto r = Run({"state"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "busy: 0\n");
}

TEST_F(Kxhost, StepsRunInOrderInOneProcess) {
  const auto r = Run({"state", "info", "state"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out,
            "busy: 0\nname: aec\ndescription: Application execution control "
            "plugin\nbusy: 0\n");
  // One plugin_init for all steps.
  const std::string events = Events();
  EXPECT_EQ(events.find("update_clients"), events.rfind("update_clients"));
}

TEST_F(Kxhost, AnsweredRequestPrintsTheReply) {
  const auto r =
      Run({"exec", "-"}, "<request command=\"reset_policies\"/>\n");
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "<reply/>\n");
  EXPECT_NE(Events().find("send_message\t1\treset_policies\t<reply/>\\n\n"),
            std::string::npos)
      << Events();
}

TEST_F(Kxhost, RequestFromAFile) {
  const std::string path =
      WriteInput("req.xml",
                 "<request command=\"reset_policy\"><source>dorvi</source>"
                 "</request>");
  const auto r = Run({"exec", path});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "<reply/>\n");
}

TEST_F(Kxhost, UnknownCommandExitsWith3AndIsLogged) {
  const auto r = Run({"exec", "-", "info"}, "<request command=\"nope\"/>", true);
  EXPECT_EQ(r.exit_code, 3);
  EXPECT_NE(r.err.find("received unknown command 'nope', ignoring it"),
            std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("kxhost: request 'nope' was released without a reply"),
            std::string::npos);
  // The next step still ran.
  EXPECT_NE(r.out.find("name: aec"), std::string::npos);
  EXPECT_NE(Events().find("free_msg_memory\tnope\n"), std::string::npos);
}

TEST_F(Kxhost, CommandDifferingOnlyInCaseIsUnknown) {
  const auto r = Run({"exec", "-"}, "<request command=\"Reset_Policies\"/>");
  EXPECT_EQ(r.exit_code, 3);
  EXPECT_EQ(r.out, "");
}

TEST_F(Kxhost, RequestWithoutCommandIsNeitherAnsweredNorReleased) {
  const auto r = Run({"exec", "-"}, "<request/>");
  EXPECT_EQ(r.exit_code, 3);
  EXPECT_NE(r.err.find("was not answered"), std::string::npos) << r.err;
  const std::string events = Events();
  EXPECT_EQ(events.find("send_message"), std::string::npos);
  EXPECT_EQ(events.find("free_msg_memory"), std::string::npos);
}

TEST_F(Kxhost, PoliciesPrintsThePoliciesDocument) {
  const auto r = Run({"policies"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out.compare(0, 11, "<policies>\n"), 0) << r.out;
  EXPECT_NE(r.out.find("<policy name=\"state\""), std::string::npos) << r.out;
}

TEST_F(Kxhost, SetPoliciesThatFailsExitsWith1) {
  const std::string path = WriteInput(
      "bad-policies.xml", "<policies><policy group=\"aec\"/></policies>");
  const auto r = Run({"set-policies", path});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("plugin_set_policies failed"), std::string::npos);
}

TEST_F(Kxhost, ImportPoliciesPrintsTheResult) {
  const std::string path = WriteInput("empty.json", "{\"policies\": []}");
  const auto r = Run({"import-policies", path});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "<result/>\n");
}

TEST_F(Kxhost, MissingPluginExitsWith2AndOneLine) {
  const auto r = kxtest::RunKxhost(
      {"--root", dir_, "--plugin", dir_ + "/no-such-plugin.so", "info"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_TRUE(HasOneLine(r.err)) << r.err;
  EXPECT_NE(r.err.find("cannot load plug-in"), std::string::npos);
  EXPECT_EQ(r.out, "");
}

TEST_F(Kxhost, BrokenPluginExitsWith2AndOneLine) {
  const std::string path = WriteInput("broken.so", "this is not a library\n");
  const auto r = kxtest::RunKxhost({"--root", dir_, "--plugin", path, "info"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_TRUE(HasOneLine(r.err)) << r.err;
}

TEST_F(Kxhost, PluginWithoutEntryPointsExitsWith2AndOneLine) {
  // A real shared library that exports none of the entry points.
  const auto r = kxtest::RunKxhost(
      {"--root", dir_, "--plugin",
       std::string(KX_BINARY_DIR) + "/host/libkxhost.so", "info"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_TRUE(HasOneLine(r.err)) << r.err;
  EXPECT_NE(r.err.find("lacks the entry point _Z11plugin_initv"),
            std::string::npos)
      << r.err;
}

TEST_F(Kxhost, MalformedRequestExitsWith2BeforeThePluginRuns) {
  const auto r = Run({"exec", "-"}, "<request command=\"get\">");
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_TRUE(HasOneLine(r.err)) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(Events(), "");
}

TEST_F(Kxhost, UnreadableFileExitsWith2) {
  const auto r = Run({"exec", dir_ + "/missing.xml"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_TRUE(HasOneLine(r.err)) << r.err;
  EXPECT_NE(r.err.find("cannot read"), std::string::npos);
}

TEST_F(Kxhost, MalformedJsonExitsWith2) {
  const std::string path = WriteInput("bad.json", "{\"policies\": [");
  const auto r = Run({"import-policies", path});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_TRUE(HasOneLine(r.err)) << r.err;
}

TEST_F(Kxhost, UsageErrorsExitWith2AndOneLine) {
  const std::vector<std::vector<std::string>> cases = {
      {},
      {"frobnicate"},
      {"exec"},
      {"setting", "only-name"},
      {"--bogus", "info"},
      {"--root"},
  };
  for (const auto& args : cases) {
    const auto r = kxtest::RunKxhost(args);
    EXPECT_EQ(r.exit_code, 2) << ::testing::PrintToString(args);
    EXPECT_TRUE(HasOneLine(r.err)) << r.err;
  }
}

TEST_F(Kxhost, StandardInputForTwoStepsIsRefused) {
  const auto r = Run({"exec", "-", "exec", "-"}, "<request command=\"x\"/>");
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_TRUE(HasOneLine(r.err)) << r.err;
}

TEST_F(Kxhost, FailingInitExitsWith1AndRunsNoStep) {
  // A whitelist the plug-in cannot read.
  fs::create_directories(dir_ + "/etc/aec/white-list.config");
  const auto r = Run({"info"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_TRUE(HasOneLine(r.err)) << r.err;
  EXPECT_NE(r.err.find("plugin_init failed"), std::string::npos);
}

TEST_F(Kxhost, VerboseMirrorsTheLogInSyslogFormat) {
  const auto quiet = Run({"info"});
  EXPECT_EQ(quiet.err, "");
  const auto loud = Run({"info"}, "", true);
  EXPECT_EQ(loud.exit_code, 0);
  EXPECT_NE(loud.err.find(" kx_serv["), std::string::npos) << loud.err;
  EXPECT_NE(loud.err.find("aec_plugin:"), std::string::npos);
  EXPECT_NE(loud.err.find("aec: initialized"), std::string::npos);
  EXPECT_NE(loud.err.find("aec: uninitialized"), std::string::npos);
}

TEST_F(Kxhost, KernelParametersGoBelowTheRoot) {
  ASSERT_EQ(Run({"info"}).exit_code, 0);
  EXPECT_TRUE(kxtest::Exists(dir_ + "/var/run/sysctl/korvex/secure/environment"));
}

TEST_F(Kxhost, StorePasswordKeepsItEnciphered) {
  // The --root dir is this test's own scratch root, so the host key that
  // kxhost makes is the one decrypt_password reads here.
  fs::remove_all(dir_);
  dir_ = root_.dir();
  const auto r = Run({"store-password"}, "p@ss 'word\n");
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "");
  const auto values = SettingValues("KXDomainPassword");
  ASSERT_EQ(values.size(), 1u);
  EXPECT_EQ(values[0].compare(0, 4, "kx1:"), 0) << values[0];
  EXPECT_EQ(decrypt_password(values[0]), "p@ss 'word");
  // Stored again: the row is updated, not duplicated.
  ASSERT_EQ(Run({"store-password"}, "second").exit_code, 0);
  const auto again = SettingValues("KXDomainPassword");
  ASSERT_EQ(again.size(), 1u);
  EXPECT_EQ(decrypt_password(again[0]), "second");
  // No plug-in was needed for it.
  EXPECT_EQ(Events(), "");
}

TEST_F(Kxhost, StorePasswordWithoutInputExitsWith2) {
  const auto r = Run({"store-password"}, "");
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_TRUE(HasOneLine(r.err)) << r.err;
}

TEST_F(Kxhost, SettingStoresABoundValue) {
  const std::string value = "x'); DROP TABLE network_plugin_config; --";
  ASSERT_EQ(Run({"setting", "KXServer", "dc1.corp"}).exit_code, 0);
  ASSERT_EQ(Run({"setting", "KXServer", value}).exit_code, 0);
  ASSERT_EQ(Run({"setting", "KXPort", "636"}).exit_code, 0);
  EXPECT_EQ(SettingValues("KXServer"), std::vector<std::string>{value});
  EXPECT_EQ(SettingValues("KXPort"), std::vector<std::string>{"636"});
}

// The sources that GetPoliciesXml reports for log_perm_exec, in order.
std::vector<std::string> LogPermExecSources(const std::string& out) {
  const std::string key = "name=\"log_perm_exec\" type=\"enum\" source=\"";
  std::vector<std::string> sources;
  for (auto at = out.find(key); at != std::string::npos;
       at = out.find(key, at + 1)) {
    const auto start = at + key.size();
    sources.push_back(out.substr(start, out.find('"', start) - start));
  }
  return sources;
}

TEST_F(Kxhost, ResetWithoutSourceResetsEveryPolicyWithSourceOnlyThatSource) {
  const std::string policies = WriteInput(
      "dorvi.xml",
      "<policies><policy group=\"aec\" name=\"log_perm_exec\" "
      "source=\"dorvi\"><type>0</type></policy></policies>");
  const std::string other_source = WriteInput(
      "yunko.xml",
      "<request command=\"reset_policies\"><source>yunko</source></request>");
  const std::string no_source =
      WriteInput("all.xml", "<request command=\"reset_policy\"/>");
  const auto r = Run({"set-policies", policies, "exec", other_source,
                      "policies", "exec", no_source, "policies"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  // GetParam("source") null: ResetSource for all; "yunko": only yunko's.
  EXPECT_EQ(LogPermExecSources(r.out),
            (std::vector<std::string>{"dorvi", "local"}))
      << r.out;
}

}  // namespace
