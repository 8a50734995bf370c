// Every hostile value through every management command, in one kxhost run
// per value (a step per request), with a rule-control tool that refuses
// everything.
//
// After each run (hostile_env.h): nothing but the agent tools was started,
// no payload ran, nothing outside /opt/korvex/etc/aec (here: nothing at
// all) and nothing outside the root changed, the audit journal is byte for
// byte the same. Besides:
//  - the tool received the value, wherever it was passed on, as exactly one
//    argument: every argument of every run is one of the tool's own words
//    or the value as the request carried it;
//  - every reply says what was wrong: each failed result carries its error
//    text ("Rule does not exists: <value>", the tool's refusal, the
//    journal's "failed to read audit database"), and the command named by
//    the value is logged as unknown and released without a reply.
#include <gtest/gtest.h>

#include <boost/property_tree/ptree.hpp>
#include <set>
#include <string>
#include <vector>

#include "host/utf8_text.h"
#include "hostile_env.h"
#include "lib/xml_document.h"
#include "support/well_formed_xml.h"

namespace hostile {
namespace {

namespace pt = boost::property_tree;

// The words the plug-in itself puts on the tool's command lines ("--" marks
// the next argument as a value).
const std::set<std::string> kToolWords = {
    "--",
    "add",    "rm",      "update", "enable", "disable", "rename", "export",
    "reload", "restart", "-C",     "-v",     "-n",      "-u",     "-g",
    "-r",     "-f",      "-R",     "-d",     "-D",      "-X",     "-a",
    "-A",     "-N",      "-w",     "r1"};

struct Step {
  std::string command;  // as the reply names it
  std::string request;
};

// Checks every "result" node below `node`: a failed one says why.
void ExpectResultsExplained(const pt::ptree& node, const std::string& where,
                            int* failed) {
  const auto result = node.find("result");
  if (result != node.not_found()) {
    if (result->second.data() == "0") {
      ++*failed;
      const auto why = node.find("error_desc");
      EXPECT_TRUE(why != node.not_found() && !why->second.data().empty())
          << where << ": a failed result without its reason";
    } else {
      EXPECT_EQ(result->second.data(), "1") << where;
    }
  }
  for (const auto& child : node) {
    if (child.first != "<xmlattr>") {
      ExpectResultsExplained(child.second, where + "/" + child.first, failed);
    }
  }
}

std::string Text(const pt::ptree& reply, const std::string& path) {
  const auto found = reply.get_child_optional(pt::ptree::path_type(path, '/'));
  return found ? found->data() : "<none>";
}

class HostileCommands : public HostileTest {};

TEST_P(HostileCommands, CommandsPassTheValueOnAsOneArgumentAndExplainFailures) {
  const ReadBack value = Read();
  const std::string a = XmlEscape(Value());  // in attributes
  const std::string e = a;                   // in element text
  const std::vector<Step> steps = {
      {"get",
       "<request command=\"get\" whitelist=\"1\" resource-exception=\"1\" "
       "rule_resource=\"1\"><rule>" +
           e + "</rule></request>"},
      {"add", "<request command=\"add\"><rule name=\"" + a +
                  "\" resource-file=\"" + a + "\"><u>" + e + "</u><g>" + e +
                  "</g><r>" + e + "</r></rule><whitelist><u>" + e + "</u><g>" +
                  e + "</g></whitelist><resource-exception><r>" + e +
                  "</r></resource-exception></request>"},
      {"edit", "<request command=\"edit\"><rule name=\"r1\" rename=\"" + a +
                   "\" state=\"0\"><add><u>" + e + "</u><r>" + e +
                   "</r></add><remove><g>" + e + "</g></remove><update><r>" +
                   e + "</r></update></rule></request>"},
      {"edit", "<request command=\"edit\"><rule name=\"" + a +
                   "\" state=\"1\"/></request>"},
      {"remove", "<request command=\"remove\"><rule><name>" + e +
                     "</name></rule><whitelist><u>" + e + "</u><g>" + e +
                     "</g></whitelist><resource-exception><r>" + e +
                     "</r></resource-exception></request>"},
      {"export",
       "<request command=\"export\" name=\"" + a + "\" file=\"" + a + "\"/>"},
      {"reload", "<request command=\"reload\" name=\"" + a + "\"><rule>" + e +
                     "</rule></request>"},
      {"log", "<request command=\"log\"><execfile>" + e +
                  "</execfile><openfiles>1</openfiles></request>"},
      {"log", "<request command=\"log\"><user>" + e + "</user></request>"},
      {"log", "<request command=\"log\"><group>" + e + "</group></request>"},
      {"log",
       "<request command=\"log\"><inittime>" + e + "</inittime></request>"},
      {"log",
       "<request command=\"log\"><finaltime>" + e + "</finaltime></request>"},
      {"log", "<request command=\"log\"><operationresult>" + e +
                  "</operationresult></request>"},
      {"loglist",
       "<request command=\"loglist\"><users>1</users><groups>1"
       "</groups><execfiles>1</execfiles><inittime>" +
           e + "</inittime></request>"},
      {"loglist", "<request command=\"loglist\"><users>1</users><finaltime>" +
                      e + "</finaltime></request>"},
      {"loglist",
       "<request command=\"loglist\"><execfiles>1</execfiles>"
       "<operationresult>" +
           e + "</operationresult></request>"},
      {"confirm_hard_mode", "<request command=\"confirm_hard_mode\" name=\"" +
                                a + "\"><source>" + e + "</source></request>"},
      {"status_confirmation",
       "<request command=\"status_confirmation\" name=\"" + a + "\"><source>" +
           e + "</source></request>"},
      {"reset_policies", "<request command=\"reset_policies\"><source>" + e +
                             "</source></request>"},
  };

  if (!value.parses) {
    // The host refuses such a document before the plug-in sees it.
    const auto refused = Run({"exec", StepFile(steps[0].request)});
    EXPECT_EQ(refused.exit_code, 2) << refused.err;
    EXPECT_NE(refused.err.find("kxhost: "), std::string::npos);
    ExpectNoSideEffects(false);
    return;
  }

  std::vector<std::string> args;
  for (const Step& step : steps) {
    args.push_back("exec");
    args.push_back(StepFile(step.request));
  }
  // Last: a command named by the value, which nobody answers.
  args.push_back("exec");
  args.push_back(StepFile("<request command=\"" + a + "\"/>"));
  const auto run = Run(args);

  EXPECT_EQ(run.exit_code, 3) << run.err;
  EXPECT_NE(run.err.find("received unknown command '" + value.attribute +
                         "', ignoring it"),
            std::string::npos)
      << run.err;
  const std::vector<std::string> replies = SplitReplies(run.out);
  ASSERT_EQ(replies.size(), steps.size()) << run.out << run.err;

  for (std::size_t i = 0; i < steps.size(); ++i) {
    SCOPED_TRACE("step " + std::to_string(i) + " (" + steps[i].command +
                 "):\n" + replies[i]);
    // Whatever the value holds, the reply is XML that any parser takes.
    EXPECT_EQ(kxtest::XmlWellFormednessError(replies[i]), "");
    const auto document = kxhost::ParseXml(replies[i]);
    const pt::ptree& reply = kxhost::TreeOf(*document);
    int failed = 0;
    ExpectResultsExplained(reply, steps[i].command, &failed);
    const std::string& command = steps[i].command;
    if (command == "reset_policies") {
      EXPECT_TRUE(reply.empty());
      continue;
    }
    ASSERT_TRUE(reply.find(command) != reply.not_found());
    if (command == "get") {
      if (value.element.empty()) {
        EXPECT_EQ(Text(reply, "get/rules/result"), "1");
      } else {
        // Quoted as XML can carry it: U+FFFD for each control character
        // and each byte that is not UTF-8.
        EXPECT_EQ(Text(reply, "get/rules/error_desc"),
                  "Rule does not exists: " + kxtext::ToXmlText(value.element));
      }
      EXPECT_EQ(Text(reply, "get/whitelist/result"), "1");
      EXPECT_EQ(Text(reply, "get/resource-exception/result"), "1");
    } else if (command == "edit" && i == 3) {
      EXPECT_EQ(Text(reply, "edit/rule/result"), "0");
      if (!value.attribute.empty()) {
        EXPECT_EQ(
            Text(reply, "edit/rule/error_desc"),
            "Rule does not exists: " + kxtext::ToXmlText(value.attribute));
      }
    } else if (command == "add" || command == "edit" || command == "remove" ||
               command == "export" || command == "reload") {
      // The tool refuses everything, or the plug-in refused first: nothing
      // may look done.
      EXPECT_GT(failed, 0);
      const std::string all = replies[i];
      EXPECT_EQ(all.find("<result>1</result>"), std::string::npos);
    } else if (command == "log" || command == "loglist") {
      const std::string result = Text(reply, command + "/result");
      if (result == "0") {
        EXPECT_EQ(Text(reply, command + "/error_desc"),
                  "failed to read audit database");
      }
    }
  }

  // Each value the tool got came whole, as one argument.
  bool attribute_seen = false, element_seen = false;
  for (const auto& call : ToolCalls()) {
    for (const std::string& arg : call) {
      attribute_seen = attribute_seen || arg == value.attribute;
      element_seen = element_seen || arg == value.element;
      EXPECT_TRUE(kToolWords.count(arg) != 0 || arg == value.attribute ||
                  arg == value.element)
          << "the tool got an argument that is neither its own word nor "
             "the value: '"
          << arg << "'";
    }
  }
  if (!value.attribute.empty()) {
    EXPECT_TRUE(attribute_seen);
  }
  if (!value.element.empty()) {
    EXPECT_TRUE(element_seen);
  }

  ExpectNoSideEffects(false);
}

INSTANTIATE_TEST_SUITE_P(Values, HostileCommands,
                         ::testing::ValuesIn(HostileValues()), ValueName);

}  // namespace
}  // namespace hostile
