// The hostile suite's sandbox: a prepared install root copied fresh for
// each value, kxhost runs that record every program started, and the checks
// shared by the command and policy tests.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "harness.h"
#include "hostile_values.h"

namespace hostile {

// The value as the plug-in reads it from a request: an attribute's text and
// an element's text (C strings: a NUL byte ends them). `parses` is false
// when the value cannot be put into a request document at all.
struct ReadBack {
  bool parses = false;
  std::string attribute;
  std::string element;
};

class HostileTest : public ::testing::TestWithParam<HostileValue> {
 public:
  static void SetUpTestSuite();
  static void TearDownTestSuite();

 protected:
  void SetUp() override;
  void TearDown() override;

  // GetParam().text with @M@ and @D@ filled in.
  const std::string& Value() const { return value_; }
  // How the value reads back from a request document.
  ReadBack Read() const;

  // Runs kxhost on this test's root (-v: the log on standard error) with
  // the recording shim preloaded.
  kxharness::ProgramResult Run(const std::vector<std::string>& steps);
  // Writes `text` to a new file of this test and returns its path.
  std::string StepFile(const std::string& text);

  // The arguments of every run of the fake rule-control tool since SetUp.
  std::vector<std::vector<std::string>> ToolCalls() const;
  // Every program start recorded since SetUp: "<call>\t<program>".
  std::vector<std::string> Starts() const;

  // The checks after any run: only the agent tools (and the one fixed
  // reload command) were started, no payload's marker file exists, nothing
  // outside the root changed, the journal is byte for byte the same, and
  // in the root nothing changed outside etc/aec (beyond the tool's records,
  // the host's events and log files, and the settings database).
  void ExpectNoSideEffects(bool config_may_change);

  std::string root_;
  std::string outside_;  // the watched directory (@D@)
  std::string marker_;   // @M@

 private:
  kxharness::Tree RootSnapshot() const;

  std::string work_;
  std::string value_;
  std::string exec_log_;
  kxharness::Tree root_before_;
  kxharness::Tree outside_before_;
  std::string journal_before_;
  int step_files_ = 0;
};

// Text for a position in an XML document (element text and attribute
// values alike): &, <, >, " and ' escaped, everything else as it is.
std::string XmlEscape(const std::string& text);
// A JSON string literal, quotes included: ", \ and control characters
// escaped, every other byte as it is.
std::string JsonString(const std::string& text);

// The reply documents kxhost printed, in order.
std::vector<std::string> SplitReplies(const std::string& out);

// Test names: the label of each value.
std::string ValueName(const ::testing::TestParamInfo<HostileValue>& param);

}  // namespace hostile
