// Every file the plug-in and the host rewrite, written while a full disk
// (ENOSPC) or an I/O error (EIO) hits each single write, flush, close and
// rename of it in turn.
//
// kxhost runs as a child with libkxfault.so preloaded (tests/faults/
// kxfault.cpp), so the test runner itself never meets a fault. For each
// file and each failing call N:
//  - every watched file holds its previous content or its new one, never
//    anything else, and no temporary file is left behind;
//  - the failure is reported exactly as the code's own failure path says
//    (the log text of the scenario) whenever the new content is not in
//    place, and not reported when it is (only the flush of the directory
//    after the rename may fail unreported: the content is already there);
//  - a mixed result (some files new, some old) happens only when a rename
//    failed, as the batch writer of the rules promises;
//  - the next write succeeds: running the same steps again without a fault
//    leaves exactly what two clean runs leave.
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <map>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "harness.h"
#include "kxtest.h"

namespace {

constexpr const char* kAbsent = "<absent>";

struct Scenario {
  std::string name;
  // Paths whose writes fail, as kxhost sees them inside its sandbox.
  std::vector<std::string> prefixes;
  // Files under watch, relative to the root.
  std::vector<std::string> watched;
  // Import documents run (clean) to make the previous state.
  std::vector<std::string> setup;
  // Import documents of the run under faults, and again of the retry.
  std::vector<std::string> change;
  // What the log must say when the new content did not arrive.
  std::vector<std::string> failure_texts;
};

// gtest shows a parameter by its name, not by its raw bytes (whose padding
// is uninitialised memory).
void PrintTo(const Scenario& scenario, std::ostream* out) {
  *out << scenario.name;
}

std::string Rule(const std::string& name, const std::string& resource) {
  return "{\"name\": \"" + name +
         "\", \"all_allowed\": \"false\", \"extended\": \"false\", "
         "\"system\": \"false\", \"enable\": \"true\", \"user_list\": "
         "[\"alice\"], \"group_list\": [], \"resource_list\": [\"" +
         resource + "\"]}";
}

std::string Import(const std::string& entries) {
  return "{\"policies\": [" + entries + "]}";
}

std::string Policy(const std::string& name, const std::string& source,
                   const std::string& value) {
  return "{\"group\": \"aec\", \"name\": \"" + name + "\", \"source\": \"" +
         source + "\", \"value\": " + value + "}";
}

const std::string kConfig = "/opt/korvex/etc/aec/";

std::vector<Scenario> Scenarios() {
  std::vector<Scenario> all;
  all.push_back({"RuleFiles",
                 {kConfig + ".rules-batch.", kConfig + "rules/fault-"},
                 {"etc/aec/rules/fault-a.conf", "etc/aec/rules/fault-b.conf",
                  "etc/aec/rules/fault-c.conf"},
                 {Import(Policy("rules", "local",
                                "[" + Rule("fault-a", "/usr/bin/a1") + ", " +
                                    Rule("fault-b", "/usr/bin/b1") + "]"))},
                 {Import(Policy("rules", "local",
                                "[" + Rule("fault-a", "/usr/bin/a2") + ", " +
                                    Rule("fault-b", "/usr/bin/b2") + ", " +
                                    Rule("fault-c", "/usr/bin/c2") + "]"))},
                 {"policy 'rules' failed to apply", "write error"}});
  all.push_back(
      {"Whitelist",
       {kConfig + ".white-list.config", kConfig + "white-list.config"},
       {"etc/aec/white-list.config"},
       {Import(Policy("whitelist", "local",
                      "[{\"name\": \"alice\", \"type\": \"user\"}]"))},
       {Import(Policy("whitelist", "local",
                      "[{\"name\": \"bob\", \"type\": \"user\"}, "
                      "{\"name\": \"wheel\", \"type\": \"group\"}]"))},
       {"AEC whitelist is not applied"}});
  all.push_back(
      {"Exceptions",
       {kConfig + ".resource-exception.conf",
        kConfig + "resource-exception.conf"},
       {"etc/aec/resource-exception.conf"},
       {Import(Policy("exceptions", "local", "[\"/opt/old\"]"))},
       {Import(Policy("exceptions", "local", "[\"/opt/new\", \"/opt/x\"]"))},
       {"policy 'exceptions' failed to apply", "write error"}});
  all.push_back(
      {"PolicySources",
       {kConfig + ".policy-sources.conf", kConfig + "policy-sources.conf"},
       {"etc/aec/policy-sources.conf"},
       {Import(Policy("exceptions", "local", "[\"/opt/old\"]"))},
       {Import(Policy("exceptions", "dorvi", "[\"/opt/new\"]"))},
       {"cannot write /opt/korvex/etc/aec/policy-sources.conf"}});
  // Hard mode switched on at this station (central management needs no
  // confirmation): the confirmation round starts, its state is written and
  // the login warning appears. The soft step is a no-op after the set-up;
  // on the retry it closes the round again, so that hard mode starts anew.
  const std::string soft = Import(Policy("state", "local", "\"1\"") + ", " +
                                  Policy("mode", "local", "\"0\""));
  const std::string hard = Import(Policy("mode", "local", "\"1\""));
  all.push_back(
      {"ConfirmationState",
       {"/opt/korvex/var/.aec_confirm.", "/opt/korvex/var/aec_confirm"},
       {"var/aec_confirm"},
       {soft},
       {soft, hard},
       {"cannot write /opt/korvex/var/aec_confirm"}});
  all.push_back({"ConfirmationWarning",
                 {"/opt/korvex/var/tmp/.aec_confirm_warning",
                  "/opt/korvex/var/tmp/pam_messages/aec_confirm_warning"},
                 {"var/tmp/pam_messages/aec_confirm_warning"},
                 {soft},
                 {soft, hard},
                 {"confirmation handler HandlerWaitForConfirmation failed"}});
  return all;
}

std::map<std::string, std::string> Contents(
    const std::string& root, const std::vector<std::string>& files) {
  std::map<std::string, std::string> contents;
  for (const auto& file : files) {
    contents[file] = kxharness::ReadFileOr(root + "/" + file, kAbsent);
  }
  return contents;
}

// Temporaries of the atomic writers start with a dot; none may survive.
std::vector<std::string> Leftovers(const std::string& root) {
  std::vector<std::string> found;
  for (const auto& item : kxharness::Snapshot(root)) {
    const std::string base =
        boost::filesystem::path(item.first).filename().string();
    if (base[0] == '.') found.push_back(item.first);
  }
  return found;
}

class WriteFaults : public ::testing::TestWithParam<Scenario> {
 protected:
  void SetUp() override {
    work_ = scratch_.dir();
    base_ = work_ + "/base";
    boost::filesystem::create_directories(base_ + "/bin");
    for (const char* tool : {"kxaecctl", "kxaide"}) {
      kxharness::CopyFile(KX_FAKE_TOOL_PATH, base_ + "/bin/" + tool);
    }
    // Sealed already: a new kxhost root is sealed with kxaide, and the fake
    // one writes no checksum database.
    kxtest::WriteFile(base_ + "/etc/aec/crc-rule.db", "");
    const Scenario& scenario = GetParam();
    for (std::size_t i = 0; i < scenario.setup.size(); ++i) {
      const auto result = Run(base_, scenario.setup, "setup", {});
      ASSERT_EQ(result.exit_code, 0) << result.err;
    }
  }

  // One kxhost process importing `documents` in order (-v: the log goes to
  // standard error).
  kxharness::ProgramResult Run(const std::string& root,
                               const std::vector<std::string>& documents,
                               const std::string& tag,
                               const std::map<std::string, std::string>& env) {
    std::vector<std::string> args = {"--root", root, "--plugin", KX_PLUGIN_PATH,
                                     "-v"};
    for (std::size_t i = 0; i < documents.size(); ++i) {
      const std::string file =
          work_ + "/" + tag + "-" + std::to_string(i) + ".json";
      kxtest::WriteFile(file, documents[i]);
      args.push_back("import-policies");
      args.push_back(file);
    }
    return kxharness::RunKxhost(args, env);
  }

  std::map<std::string, std::string> FaultEnv(long nth, int error,
                                              const std::string& report) {
    std::string prefixes;
    for (const auto& prefix : GetParam().prefixes) {
      prefixes += (prefixes.empty() ? "" : ":") + prefix;
    }
    std::string asan = "verify_asan_link_order=0";
    if (const char* old = getenv("ASAN_OPTIONS")) {
      asan = std::string(old) + ":" + asan;
    }
    return {{"LD_PRELOAD", KX_FAULT_SHIM},
            {"ASAN_OPTIONS", asan},
            {"KXFAULT_PREFIXES", prefixes},
            {"KXFAULT_NTH", std::to_string(nth)},
            {"KXFAULT_ERRNO", std::to_string(error)},
            {"KXFAULT_REPORT", report}};
  }

  kxharness::ScratchTmpfs scratch_{"kxfaults-"};
  std::string work_;
  std::string base_;
};

bool Logged(const std::string& log, const std::vector<std::string>& texts) {
  for (const auto& text : texts) {
    if (log.find(text) == std::string::npos) return false;
  }
  return true;
}

TEST_P(WriteFaults, EveryFailingCallKeepsOldOrNewContentAndIsReported) {
  const Scenario& scenario = GetParam();
  const auto old_contents = Contents(base_, scenario.watched);

  // A clean run with the shim only counting: the calls to fail, and the
  // new contents.
  const std::string counted = work_ + "/counted";
  kxharness::CopyTree(base_, counted);
  const std::string count_report = work_ + "/count.report";
  const auto clean =
      Run(counted, scenario.change, "change", FaultEnv(0, 0, count_report));
  ASSERT_EQ(clean.exit_code, 0) << clean.err;
  ASSERT_FALSE(Logged(clean.err, scenario.failure_texts)) << clean.err;
  const auto new_contents = Contents(counted, scenario.watched);
  ASSERT_NE(old_contents, new_contents) << "the change changes nothing";
  const std::string trace = kxharness::ReadFileOr(count_report, "");
  long calls = 0;
  {
    const auto at = trace.rfind("calls ");
    ASSERT_NE(at, std::string::npos) << trace;
    calls = std::stol(trace.substr(at + 6));
  }
  // At least writing and renaming one temporary file.
  ASSERT_GE(calls, 2) << trace;

  // What the same steps leave when run twice without any fault.
  const std::string twice = work_ + "/twice";
  kxharness::CopyTree(counted, twice);
  ASSERT_EQ(Run(twice, scenario.change, "change", {}).exit_code, 0);
  const auto converged = Contents(twice, scenario.watched);

  for (const int error : {ENOSPC, EIO}) {
    for (long nth = 1; nth <= calls; ++nth) {
      SCOPED_TRACE("errno " + std::to_string(error) + ", failing call " +
                   std::to_string(nth) + " of:\n" + trace);
      const std::string root =
          work_ + "/run-" + std::to_string(error) + "-" + std::to_string(nth);
      kxharness::CopyTree(base_, root);
      const std::string report = root + ".report";
      const auto faulted =
          Run(root, scenario.change, "change", FaultEnv(nth, error, report));
      const std::string what = kxharness::ReadFileOr(report, "");
      ASSERT_NE(what.find("failed " + std::to_string(nth) + " "),
                std::string::npos)
          << "the fault did not fire:\n"
          << what;
      EXPECT_LT(faulted.exit_code, 128) << faulted.err;

      const auto now = Contents(root, scenario.watched);
      bool all_new = true, all_old = true;
      for (const auto& file : scenario.watched) {
        EXPECT_TRUE(now.at(file) == old_contents.at(file) ||
                    now.at(file) == new_contents.at(file))
            << file << " holds neither its old nor its new content:\n"
            << now.at(file);
        all_new = all_new && now.at(file) == new_contents.at(file);
        all_old = all_old && now.at(file) == old_contents.at(file);
      }
      const bool rename_failed = what.find("failed " + std::to_string(nth) +
                                           " rename") != std::string::npos;
      EXPECT_TRUE(all_new || all_old || rename_failed)
          << "files changed partly although no rename failed";
      EXPECT_EQ(Logged(faulted.err, scenario.failure_texts), !all_new)
          << (all_new ? "a failure was reported although the new content "
                        "is in place"
                      : "the failure was not reported as expected")
          << "\n"
          << faulted.err;
      EXPECT_EQ(Leftovers(root), std::vector<std::string>());

      // The next write succeeds.
      const auto retry = Run(root, scenario.change, "change", {});
      EXPECT_EQ(retry.exit_code, 0) << retry.err;
      EXPECT_EQ(Contents(root, scenario.watched), converged);
      kxharness::RemoveTree(root);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Files, WriteFaults, ::testing::ValuesIn(Scenarios()),
                         [](const ::testing::TestParamInfo<Scenario>& param) {
                           return param.param.name;
                         });

}  // namespace
