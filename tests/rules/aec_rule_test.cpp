// The rule record: reading, comparing, writing and rendering rule files.
#include "aec_rule.h"

#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "host/errors.h"
#include "kxtest.h"
#include "lib/xml_document.h"
#include "rules_test_util.h"

namespace pt = boost::property_tree;
using rulestest::kRulesDir;
using rulestest::RuleJson;
using rulestest::RuleSpec;
using rulestest::RuleTree;
using rulestest::WriteRuleFile;

namespace {

class AecRuleTest : public kxtest::SandboxTest {};

std::string Path(const std::string& file) { return kRulesDir + file; }

pt::ptree ReadJson(const std::string& path) {
  pt::ptree tree;
  pt::read_json(path, tree);
  return tree;
}

template <class F>
std::string ThrownMessage(F f) {
  try {
    f();
  } catch (const PluginException& e) {
    return e.what();
  }
  return "(nothing thrown)";
}

}  // namespace

TEST_F(AecRuleTest, GetPathAppendsTheNameToTheRulesDirectory) {
  EXPECT_EQ(AecRule::GetPath("a"), "/opt/korvex/etc/aec/rules/a.conf");
}

TEST_F(AecRuleTest, SaveWritesTheKeysInOrderIndentedWithEscapedSlashes) {
  RuleSpec spec{"build-tools"};
  spec.users = {"alice"};
  spec.resources = {"/usr/bin/make"};
  AecRule(RuleTree(spec)).Save();
  EXPECT_EQ(kxtest::ReadFile(Path("build-tools.conf")),
            "{\n"
            "    \"name\": \"build-tools\",\n"
            "    \"all_allowed\": \"false\",\n"
            "    \"extended\": \"false\",\n"
            "    \"system\": \"false\",\n"
            "    \"enable\": \"true\",\n"
            "    \"user_list\": [\n"
            "        \"alice\"\n"
            "    ],\n"
            "    \"group_list\": \"\",\n"
            "    \"resource_list\": [\n"
            "        \"\\/usr\\/bin\\/make\"\n"
            "    ]\n"
            "}\n");
}

TEST_F(AecRuleTest, EmptyUserListStringReadsAsNoUsersAndIsSavedAsEmptyString) {
  kxtest::WriteFile(Path("r.conf"),
                    "{\"name\":\"r\",\"all_allowed\":\"false\","
                    "\"extended\":\"false\",\"system\":\"false\","
                    "\"enable\":\"true\",\"user_list\":\"\","
                    "\"group_list\":[\"staff\"],\"resource_list\":[\"/x\"]}");
  AecRule rule(Path("r.conf"));
  auto xml = rule.GetXml(true);
  EXPECT_EQ(kxhost::TreeOf(*xml).count("u"), 0u);
  rule.Save();
  EXPECT_EQ(ReadJson(Path("r.conf")).get<std::string>("user_list"), "");
  EXPECT_NE(kxtest::ReadFile(Path("r.conf")).find("\"user_list\": \"\",\n"),
            std::string::npos);
}

TEST_F(AecRuleTest, AllAllowedOneReadsAsTrueAndIsSavedAsTrue) {
  pt::ptree tree = RuleTree(RuleSpec{"r"});
  tree.put("all_allowed", "1");
  tree.put("enable", "0");
  AecRule rule(tree);
  EXPECT_EQ(kxhost::TreeOf(*rule.GetXml(false)).get<std::string>("all"), "1");
  EXPECT_EQ(kxhost::TreeOf(*rule.GetXml(false)).get<std::string>("enable"),
            "0");
  rule.Save();
  EXPECT_EQ(ReadJson(Path("r.conf")).get<std::string>("all_allowed"), "true");
  EXPECT_EQ(ReadJson(Path("r.conf")).get<std::string>("enable"), "false");
}

TEST_F(AecRuleTest, AFlagThatIsNotABooleanFailsAsInvalidConfig) {
  pt::ptree tree = RuleTree(RuleSpec{"r"});
  tree.put("extended", "yes");
  EXPECT_EQ(ThrownMessage([&] { AecRule rule(tree); }),
            std::string(error::kInvalidConfig));
  EXPECT_TRUE(log_.Contains("failed to parse AEC rule: "));
}

TEST_F(AecRuleTest, RecordsDifferingOnlyInTheirFilePathCompareEqual) {
  RuleSpec spec{"r"};
  spec.users = {"bob"};
  WriteRuleFile(spec, "one.conf");
  WriteRuleFile(spec, "two.conf");
  const AecRule one(Path("one.conf"));
  const AecRule two(Path("two.conf"));
  const AecRule from_tree(RuleTree(spec));
  EXPECT_TRUE(one == two);
  EXPECT_FALSE(one != two);
  EXPECT_TRUE(one == from_tree);
}

TEST_F(AecRuleTest, RecordsDifferingInAnyFieldCompareUnequal) {
  const RuleSpec base{"r", false, false, false, true, {"u"}, {"g"}, {"/r"}};
  const AecRule reference(RuleTree(base));
  std::vector<RuleSpec> variants(8, base);
  variants[0].name = "other";
  variants[1].all_allowed = true;
  variants[2].extended = true;
  variants[3].system = true;
  variants[4].enable = false;
  variants[5].users = {"u", "v"};
  variants[6].groups = {};
  variants[7].resources = {"/s"};
  for (const auto& variant : variants) {
    EXPECT_TRUE(reference != AecRule(RuleTree(variant))) << RuleJson(variant);
  }
}

TEST_F(AecRuleTest, GetXmlWithoutResourcesHasNoResourceValues) {
  RuleSpec spec{"r",       true,        true, true, false, {"bob", "alice"},
                {"staff"}, {"/b", "/a"}};
  AecRule rule(RuleTree(spec));
  const pt::ptree xml = kxhost::TreeOf(*rule.GetXml(false));
  EXPECT_EQ(xml.count("r"), 0u);
  EXPECT_EQ(xml.get<std::string>("name"), "r");
  EXPECT_EQ(xml.get<std::string>("all"), "1");
  EXPECT_EQ(xml.get<std::string>("enable"), "0");
  EXPECT_EQ(xml.get<std::string>("extended"), "1");
  EXPECT_EQ(xml.get<std::string>("system"), "1");
  std::vector<std::string> keys, users;
  for (const auto& child : xml) {
    keys.push_back(child.first);
    if (child.first == "u") users.push_back(child.second.data());
  }
  EXPECT_EQ(keys, (std::vector<std::string>{"name", "all", "enable", "extended",
                                            "system", "u", "u", "g"}));
  EXPECT_EQ(users, (std::vector<std::string>{"alice", "bob"}));
}

TEST_F(AecRuleTest, GetXmlWithResourcesHasOneValuePerResourceInSortedOrder) {
  RuleSpec spec{"r"};
  spec.resources = {"/usr/bin/z", "/usr/bin/a", "/bin/m"};
  AecRule rule(RuleTree(spec));
  const pt::ptree xml = kxhost::TreeOf(*rule.GetXml(true));
  std::vector<std::string> resources;
  for (const auto& child : xml) {
    if (child.first == "r") resources.push_back(child.second.data());
  }
  EXPECT_EQ(resources,
            (std::vector<std::string>{"/bin/m", "/usr/bin/a", "/usr/bin/z"}));
}

TEST_F(AecRuleTest, AFileMissingEnableThrowsInvalidConfigAfterLoggingWhy) {
  pt::ptree tree = RuleTree(RuleSpec{"r"});
  tree.erase("enable");
  std::ostringstream text;
  pt::write_json(text, tree);
  kxtest::WriteFile(Path("r.conf"), text.str());
  EXPECT_EQ(ThrownMessage([&] { AecRule rule(Path("r.conf")); }),
            std::string(error::kInvalidConfig));
  EXPECT_TRUE(log_.Contains("failed to parse AEC config " + Path("r.conf") +
                            ": No such node (enable)"));
}

TEST_F(AecRuleTest, MalformedOrUnreadableFilesThrowInvalidConfig) {
  kxtest::WriteFile(Path("bad.conf"), "{ \"name\": ");
  EXPECT_EQ(ThrownMessage([&] { AecRule rule(Path("bad.conf")); }),
            std::string(error::kInvalidConfig));
  EXPECT_EQ(ThrownMessage([&] { AecRule rule(Path("absent.conf")); }),
            std::string(error::kInvalidConfig));
  EXPECT_TRUE(
      log_.Contains("failed to parse AEC config " + Path("absent.conf")));
}

TEST_F(AecRuleTest, ListsAreReadFromObjectsAsFromArraysAndDuplicatesCollapse) {
  pt::ptree tree = RuleTree(RuleSpec{"r"});
  pt::ptree users;
  users.put("first", "bob");
  users.put("second", "alice");
  users.put("third", "bob");
  tree.put_child("user_list", users);
  tree.put("unknown_key", "ignored");
  AecRule rule(tree);
  RuleSpec expected{"r"};
  expected.users = {"alice", "bob"};
  EXPECT_TRUE(rule == AecRule(RuleTree(expected)));
}

TEST_F(AecRuleTest, InitAddsToTheListsAlreadyHeld) {
  RuleSpec first{"r"};
  first.users = {"alice"};
  RuleSpec second{"r"};
  second.users = {"bob"};
  AecRule rule(RuleTree(first));
  rule.Init(RuleTree(second));
  RuleSpec both{"r"};
  both.users = {"alice", "bob"};
  EXPECT_TRUE(rule == AecRule(RuleTree(both)));
}

TEST_F(AecRuleTest, SavedFilesReadBackEqual) {
  RuleSpec spec{"round", true,       true,         false,
                false,   {"a", "b"}, {"g1", "g2"}, {"/x/y", "/z \"quoted\""}};
  const AecRule original(RuleTree(spec));
  original.Save();
  EXPECT_TRUE(AecRule(AecRule::GetPath("round")) == original);
}

TEST_F(AecRuleTest, IsExistAnswersForAnyKindOfFileSystemObject) {
  EXPECT_FALSE(AecRule::IsExist("r"));
  boost::filesystem::create_directory(Path("r.conf"));
  EXPECT_TRUE(AecRule::IsExist("r"));
}

TEST_F(AecRuleTest, IsExistThrowsOnAStatusErrorOtherThanAMissingFile) {
  // A link to itself: looking the file up fails with ELOOP. (A name too
  // long for a file name is an invalid name, never looked up.)
  boost::filesystem::create_symlink("loop.conf", Path("loop.conf"));
  EXPECT_THROW(AecRule::IsExist("loop"), boost::filesystem::filesystem_error);
}

TEST_F(AecRuleTest, DeleteRemovesTheFileAndIgnoresAMissingOne) {
  WriteRuleFile(RuleSpec{"r"});
  EXPECT_TRUE(AecRule::Delete("r"));
  EXPECT_FALSE(kxtest::Exists(Path("r.conf")));
  EXPECT_TRUE(AecRule::Delete("r"));
}

TEST_F(AecRuleTest, RuleNamesThatCannotBeFileNamesAreInvalidRules) {
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."),
        std::string("../escape"), std::string("a/b"), std::string("a\0b", 3)}) {
    log_.Clear();
    EXPECT_EQ(ThrownMessage([&] { AecRule rule(RuleTree(RuleSpec{name})); }),
              std::string(error::kInvalidConfig))
        << name;
    EXPECT_TRUE(log_.Contains("failed to parse AEC rule: ")) << name;
  }
}

TEST_F(AecRuleTest, TextsThatAreNotUtf8MakeARuleFromATreeInvalid) {
  // A truncated sequence, a byte that never starts one, an overlong "/" and
  // a surrogate, in each of the rule's texts.
  const std::string bad[] = {"buil\xe4-tools", "\xff\xfe", "\xc0\xaf",
                             "\xed\xa0\x80"};
  for (const std::string& text : bad) {
    RuleSpec named{text};
    RuleSpec with_user{"r"};
    with_user.users = {"alice", text};
    RuleSpec with_group{"r"};
    with_group.groups = {text};
    RuleSpec with_resource{"r"};
    with_resource.resources = {"/usr/bin/" + text};
    for (const RuleSpec& spec : {named, with_user, with_group, with_resource}) {
      log_.Clear();
      EXPECT_EQ(ThrownMessage([&] { AecRule rule(RuleTree(spec)); }),
                std::string(error::kInvalidConfig))
          << text;
      EXPECT_TRUE(log_.Contains("holds bytes that are not UTF-8")) << text;
    }
  }
}

TEST_F(AecRuleTest, ARuleFileWithAnOverlongSlashIsInvalid) {
  // The JSON reader itself lets an overlong form through.
  kxtest::WriteFile(Path("overlong.conf"),
                    "{\"name\": \"overlong\", \"all_allowed\": \"false\", "
                    "\"extended\": \"false\", \"system\": \"false\", "
                    "\"enable\": \"true\", \"user_list\": \"\", "
                    "\"group_list\": \"\", "
                    "\"resource_list\": [\"\xc0\xaf..\xc0\xaf" "etc\"]}");
  EXPECT_EQ(ThrownMessage([&] { AecRule rule(Path("overlong.conf")); }),
            std::string(error::kInvalidConfig));
  EXPECT_TRUE(log_.Contains("holds bytes that are not UTF-8"));
}

TEST_F(AecRuleTest, Utf8TextsSurviveSaveAndReadByteForByte) {
  RuleSpec spec{"r\xc3\xa8gle-\xe2\x82\xac-\xf0\x9f\x94\x92"};
  spec.users = {"j\xc3\xbcrgen"};
  spec.groups = {"\xd0\xb0\xd0\xb4\xd0\xbc\xd0\xb8\xd0\xbd"};
  spec.resources = {"/opt/\xe6\x97\xa5\xe6\x9c\xac/bin"};
  AecRule rule(RuleTree(spec));
  rule.Save();
  ASSERT_TRUE(kxtest::Exists(AecRule::GetPath(spec.name)));
  EXPECT_TRUE(AecRule(AecRule::GetPath(spec.name)) == rule);
  EXPECT_NE(kxtest::ReadFile(AecRule::GetPath(spec.name)).find(spec.users[0]),
            std::string::npos)
      << "written as it is, not escaped";
}

TEST_F(AecRuleTest, ARuleFileNamingAnEscapingRuleIsInvalid) {
  WriteRuleFile(RuleSpec{"../../escape"}, "escape.conf");
  EXPECT_EQ(ThrownMessage([&] { AecRule rule(Path("escape.conf")); }),
            std::string(error::kInvalidConfig));
}

TEST_F(AecRuleTest, IsExistIsFalseForNamesThatCannotBeFileNames) {
  // Objects exist at the paths these names would make.
  kxtest::WriteFile(std::string(rulestest::kConfigDir) + "outside.conf", "{}");
  kxtest::WriteFile(Path("..conf"), "{}");
  kxtest::WriteFile(Path("...conf"), "{}");
  boost::filesystem::create_directories(Path("sub"));
  kxtest::WriteFile(Path("sub/x.conf"), "{}");
  EXPECT_FALSE(AecRule::IsExist("../outside"));
  EXPECT_FALSE(AecRule::IsExist("."));
  EXPECT_FALSE(AecRule::IsExist(".."));
  EXPECT_FALSE(AecRule::IsExist("sub/x"));
  EXPECT_FALSE(AecRule::IsExist(""));
}

TEST_F(AecRuleTest, DeleteLeavesFilesThatAnInvalidNameWouldReach) {
  const std::string outside =
      std::string(rulestest::kConfigDir) + "outside.conf";
  kxtest::WriteFile(outside, "{}");
  EXPECT_TRUE(AecRule::Delete("../outside"));
  EXPECT_TRUE(kxtest::Exists(outside));
}

TEST_F(AecRuleTest, SaveRefusesANameThatCannotBeAFileName) {
  AecRule rule(RuleTree(RuleSpec{"fine"}));
  // Init assigns the name before it refuses it: the record now holds a name
  // no constructor would accept.
  EXPECT_THROW(rule.Init(RuleTree(RuleSpec{"../outside"})), std::exception);
  EXPECT_THROW(rule.Save(), pt::json_parser_error);
  EXPECT_FALSE(
      kxtest::Exists(std::string(rulestest::kConfigDir) + "outside.conf"));
}

TEST_F(AecRuleTest, AFailedWriteOnAFullDiskKeepsThePreviousFile) {
  rulestest::SmallConfigFs small(16 * 1024);
  RuleSpec old_spec{"r"};
  old_spec.users = {"alice"};
  AecRule(RuleTree(old_spec)).Save();
  const std::string before = kxtest::ReadFile(Path("r.conf"));
  small.Fill();
  RuleSpec new_spec{"r"};
  new_spec.users = std::vector<std::string>(200, "");
  for (int i = 0; i < 200; ++i) new_spec.users[i] = "user" + std::to_string(i);
  try {
    AecRule(RuleTree(new_spec)).Save();
    FAIL() << "Save succeeded on a full file system";
  } catch (const pt::json_parser_error& e) {
    EXPECT_EQ(e.message(), "write error");
    EXPECT_EQ(e.filename(), Path("r.conf"));
  }
  EXPECT_EQ(kxtest::ReadFile(Path("r.conf")), before);
  // No temporary is left behind, in the rules directory or beside it.
  EXPECT_EQ(rulestest::RuleFiles(), (std::set<std::string>{"r.conf"}));
}

TEST_F(AecRuleTest, AFailedWriteOnAReadOnlyDirectoryKeepsThePreviousFile) {
  RuleSpec old_spec{"r"};
  old_spec.users = {"alice"};
  AecRule(RuleTree(old_spec)).Save();
  const std::string before = kxtest::ReadFile(Path("r.conf"));
  rulestest::ReadOnlyConfigDir read_only;
  RuleSpec new_spec{"r"};
  new_spec.users = {"bob"};
  EXPECT_THROW(AecRule(RuleTree(new_spec)).Save(), pt::json_parser_error);
  EXPECT_EQ(kxtest::ReadFile(Path("r.conf")), before);
}

namespace {

// Reading the same file twice keeps the first parse for the second read;
// these check that it only ever stands for the same bytes.
std::string UsersOf(const AecRule& rule) {
  auto xml = const_cast<AecRule&>(rule).GetXml(false);
  return kxhost::TreeOf(*xml).get<std::string>("u", "");
}

}  // namespace

TEST_F(AecRuleTest, AFileRewrittenAtOnceWithOtherBytesOfTheSameSizeIsReadAfresh) {
  RuleSpec spec{"r"};
  spec.users = {"bob"};
  WriteRuleFile(spec, "r.conf");
  EXPECT_EQ(UsersOf(AecRule(Path("r.conf"))), "bob");
  // Same length, same second: only the bytes tell the files apart.
  spec.users = {"tom"};
  WriteRuleFile(spec, "r.conf");
  EXPECT_EQ(UsersOf(AecRule(Path("r.conf"))), "tom");
}

TEST_F(AecRuleTest, AFileThatTurnsMalformedAfterAGoodReadIsRefused) {
  WriteRuleFile(RuleSpec{"r"}, "r.conf");
  EXPECT_NO_THROW(AecRule rule(Path("r.conf")));
  kxtest::WriteFile(Path("r.conf"), "{ \"name\": ");
  EXPECT_EQ(ThrownMessage([&] { AecRule rule(Path("r.conf")); }),
            std::string(error::kInvalidConfig));
  EXPECT_TRUE(log_.Contains("failed to parse AEC config"));
}

namespace {

// Random UTF-8 text over every ASCII byte but NUL (the escapes live there)
// and some two-, three- and four-byte characters.
std::string RandomText(std::mt19937* random, bool name) {
  static const char* const kWide[] = {"\xc3\xa8", "\xe2\x82\xac",
                                      "\xf0\x9f\x94\x92", "\xd0\xb0"};
  std::uniform_int_distribution<int> length(1, 12), byte(1, 127),
      pick(0, 9), wide(0, 3);
  std::string text;
  for (int n = length(*random); n > 0; --n) {
    if (pick(*random) == 0) {
      text += kWide[wide(*random)];
      continue;
    }
    char c = static_cast<char>(byte(*random));
    if (name && (c == '/' || c == '.')) c = '_';
    text += c;
  }
  return text;
}

std::vector<std::string> RandomList(std::mt19937* random) {
  std::uniform_int_distribution<int> count(0, 4);
  std::set<std::string> items;
  for (int n = count(*random); n > 0; --n) {
    items.insert(RandomText(random, false));
  }
  return {items.begin(), items.end()};
}

}  // namespace

TEST_F(AecRuleTest, ToJsonWritesWhatBoostsPrettyWriterWrites) {
  std::mt19937 random(20261124);
  std::bernoulli_distribution coin;
  for (int i = 0; i < 5000; ++i) {
    RuleSpec spec{RandomText(&random, true)};
    spec.all_allowed = coin(random);
    spec.extended = coin(random);
    spec.system = coin(random);
    spec.enable = coin(random);
    spec.users = RandomList(&random);
    spec.groups = RandomList(&random);
    spec.resources = RandomList(&random);
    // RuleJson lays the tree out with Boost's writer.
    ASSERT_EQ(AecRule(RuleTree(spec)).ToJson(), RuleJson(spec))
        << "rule " << i;
  }
}
