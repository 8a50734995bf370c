// Every hostile value through every policy under kxhost: as the value of
// each kernel policy (state, mode, the six audit events), as the
// whitelist's server text, as an exception, as a rule's name, users and
// resources (policies XML), as the source of the whitelist, exceptions and
// rules, and through the JSON import (names, paths, a rule). Then the
// plug-in answers "get", prints its policies and starts again.
//
// After the run (hostile_env.h): nothing but the agent tools and the fixed
// whitelist reload ran, no payload ran, nothing outside the root changed,
// the journal is the same, and in the root only /opt/korvex/etc/aec
// changed. Besides:
//  - every kernel policy refuses the value and the log says so, naming the
//    policy; the kernel parameters stay as they were;
//  - a rule whose name cannot be a file name is refused with the rule
//    reader's own log line, and every rule file written is a direct child
//    of the rules directory that reads back;
//  - the tool never gets the value: every argument it got is a fixed word;
//  - the files the plug-in wrote (whitelist, exceptions, policy sources)
//    still read as JSON, and the plug-in starts again from them.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "aec_rule.h"
#include "host/errors.h"
#include "hostile_env.h"
#include "kxtest.h"
#include "lib/xml_document.h"

namespace hostile {
namespace {

namespace pt = boost::property_tree;

const char* const kKernelPolicies[] = {"state",
                                       "mode",
                                       "log_perm_exec",
                                       "log_deny_exec",
                                       "log_perm_openlib",
                                       "log_deny_openlib",
                                       "log_perm_openfile",
                                       "log_deny_openfile"};

// The fixed words the policies' tool runs carry.
const std::set<std::string> kToolWords = {"reload", "restart", "-C", "-v",
                                          "-w"};

std::string RuleXml(const std::string& name, const std::string& item) {
  return "<rule><name>" + name +
         "</name><all_allowed>false</all_allowed><extended>false</extended>"
         "<system>false</system><enable>true</enable><user_list><u>" +
         item + "</u></user_list><group_list><g>" + item +
         "</g></group_list><resource_list><r>" + item +
         "</r></resource_list></rule>";
}

std::string RuleJson(const std::string& name, const std::string& item) {
  return "{\"name\": " + name +
         ", \"all_allowed\": \"false\", \"extended\": \"false\", \"system\": "
         "\"false\", \"enable\": \"true\", \"user_list\": [" +
         item + "], \"group_list\": [" + item + "], \"resource_list\": [" +
         item + "]}";
}

bool ReadsAsJson(const std::string& path) {
  std::ifstream in(path);
  if (!in) return true;  // not written: nothing to read
  pt::ptree tree;
  try {
    pt::read_json(in, tree);
  } catch (const pt::json_parser_error&) {
    return false;
  }
  return true;
}

class HostilePolicies : public HostileTest {};

TEST_P(HostilePolicies, PoliciesRefuseOrKeepTheValueAsDataAndNothingElse) {
  const std::string x = XmlEscape(Value());
  const std::string j = JsonString(Value());

  std::string kernel = "<policies>";
  for (const char* name : kKernelPolicies) {
    kernel += "<policy group=\"aec\" name=\"" + std::string(name) +
              "\" source=\"local\"><type>" + x + "</type></policy>";
  }
  kernel += "</policies>";
  const std::string data =
      "<policies><policy group=\"aec\" name=\"whitelist\" source=\"local\">"
      "<value>" +
      x +
      "</value></policy>"
      "<policy group=\"aec\" name=\"exceptions\" source=\"local\"><value><r>" +
      x +
      "</r></value></policy>"
      "<policy group=\"aec\" name=\"rules\" source=\"local\"><value>" +
      RuleXml(x, x) + RuleXml("r2", x) + "</value></policy></policies>";
  const std::string sources =
      "<policies><policy group=\"aec\" name=\"exceptions\" source=\"" + x +
      "\"><value><r>/opt/from-a-source</r></value></policy>"
      "<policy group=\"aec\" name=\"rules\" source=\"" +
      x + "\"><value>" + RuleXml("r3", "/usr/bin/r3") +
      "</value></policy></policies>";
  const std::string import =
      "{\"policies\": ["
      "{\"group\": \"aec\", \"name\": \"state\", \"value\": " +
      j +
      "},"
      "{\"group\": \"aec\", \"name\": \"whitelist\", \"value\": ["
      "{\"name\": " +
      j + ", \"type\": \"user\"}, {\"name\": " + j +
      ", \"type\": \"group\"}]},"
      "{\"group\": \"aec\", \"name\": \"exceptions\", \"value\": [" +
      j +
      "]},"
      "{\"group\": \"aec\", \"name\": \"rules\", \"value\": [" +
      RuleJson(j, j) + "]}]}";
  const std::string get =
      "<request command=\"get\" whitelist=\"1\" resource-exception=\"1\" "
      "rule_resource=\"1\"><rule/></request>";

  // Documents the host cannot read never reach the plug-in; what it can
  // read goes through in one process.
  std::vector<std::string> steps;
  bool kernel_sent = false;
  const std::string documents[] = {kernel, data, sources};
  for (int i = 0; i < 3; ++i) {
    try {
      kxhost::ParseXml(documents[i]);
    } catch (const std::runtime_error&) {
      continue;
    }
    kernel_sent = kernel_sent || i == 0;
    steps.push_back("set-policies");
    steps.push_back(StepFile(documents[i]));
  }
  {
    pt::ptree tree;
    std::istringstream in(import);
    try {
      pt::read_json(in, tree);
      steps.push_back("import-policies");
      steps.push_back(StepFile(import));
    } catch (const pt::json_parser_error&) {
    }
  }
  const std::string sysctl_before =
      kxharness::ReadFileOr(root_ + "/var/run/sysctl/korvex/secure/environment",
                            "<none>") +
      kxharness::ReadFileOr(
          root_ + "/var/run/sysctl/korvex/secure/secenv_verbose", "<none>");
  steps.insert(steps.end(), {"exec", StepFile(get), "policies"});
  const auto run = Run(steps);
  EXPECT_LT(run.exit_code, 2) << run.err;

  if (kernel_sent) {
    for (const char* name : kKernelPolicies) {
      EXPECT_NE(
          run.err.find("policy '" + std::string(name) + "' rejected its value"),
          std::string::npos)
          << name << "\n"
          << run.err;
    }
    EXPECT_EQ(run.exit_code, 1) << "set-policies must report the refusal";
  }
  EXPECT_EQ(
      kxharness::ReadFileOr(root_ + "/var/run/sysctl/korvex/secure/environment",
                            "<none>") +
          kxharness::ReadFileOr(
              root_ + "/var/run/sysctl/korvex/secure/secenv_verbose", "<none>"),
      sysctl_before)
      << "a kernel parameter changed";

  // Rule files: direct children that read back; a refused name is logged
  // by the rule reader.
  const std::string rules = root_ + "/etc/aec/rules";
  for (const auto& entry :
       boost::filesystem::recursive_directory_iterator(rules)) {
    const std::string path = entry.path().string();
    EXPECT_EQ(entry.path().parent_path().string(), rules) << path;
    try {
      AecRule rule(path);
    } catch (const PluginException&) {
      ADD_FAILURE() << "unreadable rule file " << path;
    }
  }
  for (const std::string& name : {Value(), Read().element}) {
    if (!AecRule::IsValidName(name) && !name.empty() &&
        name.find('\0') == std::string::npos) {
      EXPECT_NE(run.err.find("failed to parse AEC rule: invalid rule name"),
                std::string::npos)
          << run.err;
    }
  }

  // The tool never saw the value.
  for (const auto& call : ToolCalls()) {
    for (const std::string& arg : call) {
      EXPECT_TRUE(kToolWords.count(arg) != 0)
          << "tool argument '" << arg << "'";
    }
  }

  for (const char* file : {"white-list.config", "resource-exception.conf",
                           "policy-sources.conf"}) {
    EXPECT_TRUE(ReadsAsJson(root_ + "/etc/aec/" + file))
        << file << ":\n"
        << kxharness::ReadFileOr(root_ + "/etc/aec/" + file, "");
  }
  const auto restart = Run({"info", "exec", StepFile(get)});
  EXPECT_EQ(restart.exit_code, 0) << "the plug-in cannot start again:\n"
                                  << restart.err;
  ExpectNoSideEffects(true);
}

INSTANTIATE_TEST_SUITE_P(Values, HostilePolicies,
                         ::testing::ValuesIn(HostileValues()), ValueName);

}  // namespace
}  // namespace hostile
