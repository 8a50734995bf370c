// Where kernel policies' values live and what a missing row reads as.
#include "host/request_getters.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(RequestGettersTest, ControlGetterReadsControlPluginConf) {
  ControlPolicyDbRequestGetter getter;
  EXPECT_EQ(
      getter.GetRequestReadData("aec_state"),
      "SELECT fiValue FROM control_plugin_conf WHERE fsPolicy='aec_state'");
  EXPECT_EQ(getter.Table(), "control_plugin_conf");
  EXPECT_EQ(getter.KeyColumn(), "fsPolicy");
  EXPECT_EQ(getter.ValueColumn(), "fiValue");
  EXPECT_EQ(getter.MissingRowValue("aec_state"), "0");
  EXPECT_EQ(getter.MissingRowValue("aec_mode"), "0");
}

TEST(RequestGettersTest, LogGetterReadsTheAttachedAuditTable) {
  AecLogPolicyDbRequestGetter getter;
  EXPECT_EQ(
      getter.GetRequestReadData("log_deny_exec"),
      "SELECT fiValue FROM conf.aec_log_conf WHERE fsEvent='log_deny_exec'");
  EXPECT_EQ(getter.Table(), "conf.aec_log_conf");
  EXPECT_EQ(getter.KeyColumn(), "fsEvent");
  EXPECT_EQ(getter.ValueColumn(), "fiValue");
}

TEST(RequestGettersTest, MissingAuditRowsReadAsTheInstallationDefaults) {
  AecLogPolicyDbRequestGetter getter;
  EXPECT_EQ(getter.MissingRowValue("log_perm_exec"), "1");
  EXPECT_EQ(getter.MissingRowValue("log_deny_exec"), "1");
  EXPECT_EQ(getter.MissingRowValue("log_perm_openlib"), "1");
  EXPECT_EQ(getter.MissingRowValue("log_deny_openlib"), "1");
  EXPECT_EQ(getter.MissingRowValue("log_perm_openfile"), "0");
  EXPECT_EQ(getter.MissingRowValue("log_deny_openfile"), "0");
  EXPECT_EQ(getter.MissingRowValue("log_something_else"), "0");
}

TEST(RequestGettersTest, AQuoteInAPolicyNameCannotEndTheStatement) {
  ControlPolicyDbRequestGetter getter;
  EXPECT_EQ(getter.GetRequestReadData("a'b"),
            "SELECT fiValue FROM control_plugin_conf WHERE fsPolicy='a''b'");
}

}  // namespace
