#include "aec_loaded_set.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "aec_config_read.h"

namespace {

using aec::FormatLoadedSet;
using aec::LoadedAccount;
using aec::LoadedRule;
using aec::LoadedSet;
using aec::LoadedSetError;
using aec::ParseLoadedSet;

// The example of docs/tools.md.
const char* const kExample =
    "# Application execution control: the loaded rule set.\n"
    "# Written by kxaecctl; docs/tools.md describes it. Do not edit.\n"
    "format\t1\n"
    "rule\tbuild\t1\t0\t0\t0\n"
    "rule-user\tbuild\t0\troot\n"
    "rule-group\tbuild\t4\tadm\n"
    "rule-resource\tbuild\t/usr/bin/make\n"
    "rule-resource\tbuild\t/usr/lib/x86_64-linux-gnu/libc.so.6\n"
    "whitelist-user\t1\tdaemon\n"
    "exception\t/opt/app/bin/tool\n";

// The line number a bad text is refused with.
std::size_t RefusedLine(const std::string& text) {
  try {
    ParseLoadedSet(text);
  } catch (const LoadedSetError& e) {
    return e.line();
  }
  ADD_FAILURE() << "accepted: " << text;
  return static_cast<std::size_t>(-1);
}

TEST(LoadedSetReader, ReadsEveryRecordOfTheDocumentedExample) {
  const LoadedSet set = ParseLoadedSet(kExample);
  ASSERT_EQ(set.rules.size(), 1u);
  const LoadedRule& rule = set.rules[0];
  EXPECT_EQ(rule.name, "build");
  EXPECT_TRUE(rule.enable);
  EXPECT_FALSE(rule.all_users);
  EXPECT_FALSE(rule.extended);
  EXPECT_FALSE(rule.system);
  EXPECT_EQ(rule.users, (std::vector<LoadedAccount>{{0, "root"}}));
  EXPECT_EQ(rule.groups, (std::vector<LoadedAccount>{{4, "adm"}}));
  EXPECT_EQ(rule.resources,
            (std::vector<std::string>{"/usr/bin/make",
                                      "/usr/lib/x86_64-linux-gnu/libc.so.6"}));
  EXPECT_EQ(set.whitelist_users, (std::vector<LoadedAccount>{{1, "daemon"}}));
  EXPECT_TRUE(set.whitelist_groups.empty());
  EXPECT_EQ(set.exceptions, (std::vector<std::string>{"/opt/app/bin/tool"}));
}

TEST(LoadedSetReader, ReadsEachFlagOfARuleFromItsOwnField) {
  const LoadedSet set = ParseLoadedSet(
      "format\t1\nrule\ta\t0\t1\t0\t0\nrule\tb\t0\t0\t1\t0\n"
      "rule\tc\t0\t0\t0\t1\n");
  ASSERT_EQ(set.rules.size(), 3u);
  EXPECT_TRUE(set.rules[0].all_users && !set.rules[0].extended &&
              !set.rules[0].system && !set.rules[0].enable);
  EXPECT_TRUE(set.rules[1].extended && !set.rules[1].all_users);
  EXPECT_TRUE(set.rules[2].system && !set.rules[2].extended);
}

TEST(LoadedSetReader, UndoesTheFieldEscapes) {
  const LoadedSet set = ParseLoadedSet(
      "format\t1\nexception\t/"
      "a\\tb\\\\c\\nd\\re\nwhitelist-group\t7\tg\\\\x\n");
  EXPECT_EQ(set.exceptions, (std::vector<std::string>{"/a\tb\\c\nd\re"}));
  EXPECT_EQ(set.whitelist_groups, (std::vector<LoadedAccount>{{7, "g\\x"}}));
}

TEST(LoadedSetReader, AcceptsALastLineWithoutNewlineAndSkipsBlankLines) {
  const LoadedSet set = ParseLoadedSet("\nformat\t1\n\n# note\nexception\t/x");
  EXPECT_EQ(set.exceptions, (std::vector<std::string>{"/x"}));
}

TEST(LoadedSetReader, ReadsTheLargestUid) {
  const LoadedSet set =
      ParseLoadedSet("format\t1\nwhitelist-user\t4294967295\tu\n");
  EXPECT_EQ(set.whitelist_users[0].id, 4294967295u);
}

TEST(LoadedSetReader, RefusesAnEmptyTextOrOneWithoutFormat) {
  EXPECT_EQ(RefusedLine(""), 0u);
  EXPECT_EQ(RefusedLine("# only a comment\n"), 0u);
}

TEST(LoadedSetReader, RefusesARecordBeforeTheFormat) {
  EXPECT_EQ(RefusedLine("exception\t/x\nformat\t1\n"), 1u);
}

TEST(LoadedSetReader, RefusesAnotherFormatOrASecondFormatRecord) {
  EXPECT_EQ(RefusedLine("format\t2\n"), 1u);
  EXPECT_EQ(RefusedLine("format\t1\nformat\t1\n"), 2u);
  EXPECT_EQ(RefusedLine("format\t1\t1\n"), 1u);
}

TEST(LoadedSetReader, RefusesAnUnknownRecordNamingItsLine) {
  EXPECT_EQ(RefusedLine("format\t1\nexception\t/x\nrules\tr\t1\t0\t0\t0\n"),
            3u);
  try {
    ParseLoadedSet("format\t1\nbogus\n");
    FAIL() << "accepted";
  } catch (const LoadedSetError& e) {
    EXPECT_STREQ(e.what(), "loaded set line 2: unknown record \"bogus\"");
  }
}

TEST(LoadedSetReader, RefusesAWrongNumberOfFields) {
  EXPECT_EQ(RefusedLine("format\t1\nrule\tr\t1\t0\t0\n"), 2u);
  EXPECT_EQ(RefusedLine("format\t1\nrule\tr\t1\t0\t0\t0\t0\n"), 2u);
  EXPECT_EQ(RefusedLine("format\t1\nexception\n"), 2u);
  EXPECT_EQ(RefusedLine("format\t1\nexception\t/a\t/b\n"), 2u);
  EXPECT_EQ(RefusedLine("format\t1\nwhitelist-user\t1\n"), 2u);
  EXPECT_EQ(RefusedLine("format\t1\nrule\tr\t1\t0\t0\t0\nrule-resource\tr\n"),
            3u);
}

TEST(LoadedSetReader, RefusesAFlagThatIsNotZeroOrOne) {
  EXPECT_EQ(RefusedLine("format\t1\nrule\tr\t2\t0\t0\t0\n"), 2u);
  EXPECT_EQ(RefusedLine("format\t1\nrule\tr\t1\t0\t\t0\n"), 2u);
  EXPECT_EQ(RefusedLine("format\t1\nrule\tr\t1\t0\t0\t01\n"), 2u);
}

TEST(LoadedSetReader, RefusesIdsThatAreNotDecimalNumbersBelowTwoToThe32) {
  for (const char* id :
       {"", "-1", "+1", "1a", " 1", "4294967296", "99999999999", "0x10"}) {
    EXPECT_EQ(
        RefusedLine(std::string("format\t1\nwhitelist-user\t") + id + "\tu\n"),
        2u)
        << id;
  }
}

TEST(LoadedSetReader, RefusesEmptyNamesAndPaths) {
  EXPECT_EQ(RefusedLine("format\t1\nrule\t\t1\t0\t0\t0\n"), 2u);
  EXPECT_EQ(RefusedLine("format\t1\nwhitelist-group\t3\t\n"), 2u);
  EXPECT_EQ(RefusedLine("format\t1\nexception\t\n"), 2u);
  EXPECT_EQ(RefusedLine("format\t1\nrule\tr\t1\t0\t0\t0\nrule-resource\tr\t\n"),
            3u);
}

TEST(LoadedSetReader, RefusesBadEscapesRawCarriageReturnsAndNul) {
  EXPECT_EQ(RefusedLine("format\t1\nexception\t/a\\x\n"), 2u);
  EXPECT_EQ(RefusedLine("format\t1\nexception\t/a\\\n"), 2u);
  EXPECT_EQ(RefusedLine("format\t1\r\n"), 1u);
  EXPECT_EQ(RefusedLine(std::string("format\t1\nexception\t/a\0b\n", 24)), 2u);
}

TEST(LoadedSetReader, RefusesARuleDeclaredTwice) {
  EXPECT_EQ(
      RefusedLine("format\t1\nrule\tr\t1\t0\t0\t0\nrule\tr\t0\t0\t0\t0\n"), 3u);
}

TEST(LoadedSetReader, RefusesMembersOfARuleNotDeclaredBefore) {
  EXPECT_EQ(
      RefusedLine("format\t1\nrule-user\tr\t0\troot\nrule\tr\t1\t0\t0\t0\n"),
      2u);
  EXPECT_EQ(
      RefusedLine("format\t1\nrule\tr\t1\t0\t0\t0\nrule-group\ts\t0\troot\n"),
      3u);
}

TEST(LoadedSetReader, AttachesMembersToTheRuleTheyName) {
  const LoadedSet set = ParseLoadedSet(
      "format\t1\nrule\ta\t1\t0\t0\t0\nrule\tb\t1\t0\t0\t0\n"
      "rule-resource\ta\t/bin/a\nrule-resource\tb\t/bin/b\n");
  EXPECT_EQ(set.rules[0].resources, (std::vector<std::string>{"/bin/a"}));
  EXPECT_EQ(set.rules[1].resources, (std::vector<std::string>{"/bin/b"}));
}

TEST(LoadedSetReader, AttachesMembersOfInterleavedRulesEachToItsOwn) {
  const LoadedSet set = ParseLoadedSet(
      "format\t1\nrule\ta\t1\t0\t0\t0\nrule\tb\t1\t0\t0\t0\n"
      "rule-resource\ta\t/bin/a1\nrule-resource\tb\t/bin/b1\n"
      "rule-resource\tb\t/bin/b2\nrule-resource\ta\t/bin/a2\n"
      "rule-resource\tb\t/bin/b3\n");
  EXPECT_EQ(set.rules[0].resources,
            (std::vector<std::string>{"/bin/a1", "/bin/a2"}));
  EXPECT_EQ(set.rules[1].resources,
            (std::vector<std::string>{"/bin/b1", "/bin/b2", "/bin/b3"}));
}

TEST(LoadedSetWriter, WritesTheDocumentedExample) {
  LoadedSet set;
  LoadedRule rule;
  rule.name = "build";
  rule.enable = true;
  rule.users = {{0, "root"}};
  rule.groups = {{4, "adm"}};
  rule.resources = {"/usr/bin/make", "/usr/lib/x86_64-linux-gnu/libc.so.6"};
  set.rules.push_back(rule);
  set.whitelist_users = {{1, "daemon"}};
  set.exceptions = {"/opt/app/bin/tool"};
  EXPECT_EQ(FormatLoadedSet(set), kExample);
}

TEST(LoadedSetWriter, WhatItWritesReadsBackTheSame) {
  LoadedSet set;
  for (const char* name : {"a\tb", "back\\slash", "line\nbreak", "cr\r"}) {
    LoadedRule rule;
    rule.name = name;
    rule.all_users = true;
    rule.extended = true;
    rule.system = true;
    rule.users = {{1000, std::string("u-") + name}};
    rule.groups = {{4294967295u, "nogroup"}};
    rule.resources = {std::string("/p/") + name, "/#not-a-comment"};
    set.rules.push_back(rule);
  }
  set.whitelist_users = {{2, "x\ty"}};
  set.whitelist_groups = {{3, "g"}, {5, "h"}};
  set.exceptions = {"/e\\t"};
  EXPECT_EQ(ParseLoadedSet(FormatLoadedSet(set)), set);
}

TEST(LoadedSetWriter, AnEmptySetIsTheHeaderAlone) {
  const std::string text = FormatLoadedSet(LoadedSet{});
  EXPECT_EQ(ParseLoadedSet(text), LoadedSet{});
  EXPECT_NE(text.find("format\t1\n"), std::string::npos);
}

}  // namespace

namespace {

TEST(LoadedSetFile, ReadsTheSetAFileHolds) {
  char pattern[] = "/tmp/kx-loaded-set-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern), nullptr);
  const std::string dir = pattern;
  const std::string path = dir + "/loaded-rules";
  {
    std::ofstream out(path);
    out << kExample;
  }
  const aec::LoadedSet set = aec::ReadLoadedSetFile(path);
  EXPECT_EQ(set.rules.size(), 1u);
  EXPECT_EQ(set.exceptions, (std::vector<std::string>{"/opt/app/bin/tool"}));
  const std::string link = dir + "/link";
  ASSERT_EQ(::symlink(path.c_str(), link.c_str()), 0);
  EXPECT_THROW(aec::ReadLoadedSetFile(link), aec::ConfigReadError);
  EXPECT_THROW(aec::ReadLoadedSetFile(dir + "/none"), aec::ConfigReadError);
  ::unlink(link.c_str());
  ::unlink(path.c_str());
  ::rmdir(dir.c_str());
}

}  // namespace
