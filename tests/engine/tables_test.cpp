// The tables: identities resolved from real files, hard links, replaced
// resources, and the snapshot swap.
#include "tables.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <thread>
#include <vector>

#include "decision.h"

namespace aec::engine {
namespace {

class TablesTest : public ::testing::Test {
protected:
  void SetUp() override {
    char tmpl[] = "/tmp/kx-tables-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override {
    std::string cmd = "rm -rf '" + dir_ + "'";
    ASSERT_EQ(system(cmd.c_str()), 0);
  }
  std::string Write(const std::string &name, const std::string &text) {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path) << text;
    return path;
  }
  static FileId IdOf(const std::string &path) {
    FileId id;
    EXPECT_TRUE(StatResolver(path, &id)) << path;
    return id;
  }
  // A rule for dir_/tool, which also has the hard link dir_/link.
  std::shared_ptr<const Tables> RuleOfToolWithLink() {
    const std::string tool = Write("tool", "x");
    const std::string link = dir_ + "/link";
    EXPECT_EQ(::link(tool.c_str(), link.c_str()), 0);
    RuleSetInput input;
    input.rules.push_back({"r", true, true, false, {}, {}, {tool}});
    return Tables::Build(input, StatResolver);
  }
  std::string dir_;
};

TEST_F(TablesTest, ResourceIsFoundByIdentityThroughAHardLink) {
  const std::string tool = dir_ + "/tool", link = dir_ + "/link";
  const auto tables = RuleOfToolWithLink();
  ASSERT_NE(tables->RulesOf(IdOf(link)), nullptr);
  EXPECT_EQ(tables->resource_count(), 1u);
}

TEST_F(TablesTest, ReplacedResourceIsRelearntOnlyWhenThePathNamesIt) {
  const std::string tool = Write("tool", "old");
  RuleSetInput input;
  input.rules.push_back({"r", true, true, false, {}, {}, {tool}});
  const auto tables = Tables::Build(input, StatResolver);
  // Replaced by rename: a new inode at the same path.
  const std::string fresh = Write("fresh", "new");
  ASSERT_EQ(rename(fresh.c_str(), tool.c_str()), 0);
  const FileId now = IdOf(tool);
  EXPECT_EQ(tables->RulesOf(now), nullptr);
  // Another file's identity under the resource's path is not learnt.
  const std::string other = Write("other", "o");
  EXPECT_FALSE(tables->Relearn(IdOf(other), tool, StatResolver));
  // A path that is no resource is not learnt either.
  EXPECT_FALSE(tables->Relearn(IdOf(other), other, StatResolver));
  EXPECT_TRUE(tables->Relearn(now, tool, StatResolver));
  EXPECT_NE(tables->RulesOf(now), nullptr);
  // The file system may hand the freed inode number to the next file; the
  // identity the set was built with then names a stranger, which Verify
  // finds out because the resource's path no longer resolves to it.
  const FileId other_id = IdOf(other);
  tables->Verify(other_id, other, StatResolver);
  EXPECT_EQ(tables->RulesOf(other_id), nullptr);
}

TEST_F(TablesTest, VerifyKeepsAHardLinkWhileTheResourcePathStillNamesIt) {
  const std::string tool = dir_ + "/tool", link = dir_ + "/link";
  const auto tables = RuleOfToolWithLink();
  const FileId id = IdOf(link);
  tables->Verify(id, link, StatResolver);
  EXPECT_NE(tables->RulesOf(id), nullptr);
  // The resource path now names another file: the identity is dropped.
  ASSERT_EQ(unlink(tool.c_str()), 0);
  Write("tool", "y");
  tables->Verify(id, link, StatResolver);
  EXPECT_EQ(tables->RulesOf(id), nullptr);
}

TEST_F(TablesTest, MissingResourceIsResolvedWhenItAppears) {
  const std::string later = dir_ + "/later";
  RuleSetInput input;
  input.rules.push_back({"r", true, true, false, {}, {}, {later}});
  const auto tables = Tables::Build(input, StatResolver);
  Write("later", "x");
  EXPECT_TRUE(tables->Relearn(IdOf(later), later, StatResolver));
  EXPECT_NE(tables->RulesOf(IdOf(later)), nullptr);
}

TEST_F(TablesTest, ADecisionSeesTheOldSetOrTheNewOneNeverAMix) {
  // Two sets that differ in two places: the rule and the whitelist. A
  // reader that saw half of each would see both or neither allowed.
  const std::string tool = Write("tool", "x");
  const FileId id = IdOf(tool);
  RuleSetInput a, b;
  a.rules.push_back({"r", true, false, false, {1}, {}, {tool}});
  b.rules.push_back({"r", false, false, false, {1}, {}, {tool}});
  b.whitelist_uids = {2};
  auto ta = Tables::Build(a, StatResolver);
  auto tb = Tables::Build(b, StatResolver);
  TablesHolder holder;
  holder.Set(ta);
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (int i = 0; i < 20000; ++i)
      holder.Set(i % 2 ? ta : tb);
    stop = true;
  });
  long seen = 0;
  while (!stop) {
    const auto t = holder.Get();
    Event e1{id, tool, Access::kExec, false, 1, {}};
    Event e2{id, tool, Access::kExec, false, 2, {}};
    const bool one = !Decide(e1, *t, {true, true}).rules_deny;
    const bool two = !Decide(e2, *t, {true, true}).rules_deny;
    ASSERT_NE(one, two);
    ++seen;
  }
  writer.join();
  EXPECT_GT(seen, 0);
}

TEST_F(TablesTest, IntegrityRecordsTheContentOfEachResource) {
  const std::string tool = Write("tool", "abc");
  RuleSetInput input;
  input.rules.push_back(
      {"r", true, true, false, {}, {}, {tool, dir_ + "/missing"}});
  const auto plain = Tables::Build(input, StatResolver);
  EXPECT_EQ(plain->RecordedDigest(IdOf(tool)), nullptr);
  const auto checked = Tables::Build(input, StatResolver, true);
  const Digest *recorded = checked->RecordedDigest(IdOf(tool));
  ASSERT_NE(recorded, nullptr);
  // sha256("abc")
  const unsigned char abc[4] = {0xba, 0x78, 0x16, 0xbf};
  EXPECT_EQ(std::memcmp(recorded->data(), abc, 4), 0);
  Write("tool", "abd");
  Digest now;
  ASSERT_TRUE(DigestOfFile(tool, &now));
  EXPECT_NE(now, *recorded);
}

TEST_F(TablesTest, ALargeSetIsResolvedWholeAndHardLinksShareTheirRules) {
  // Enough resources to be resolved on several threads. Rule k holds
  // /f/k00000../f/k00199; identities repeat every 15,000 paths, so the
  // last 5,000 paths are hard links of the first 5,000 (of other rules).
  RuleSetInput input;
  for (int k = 0; k < 100; ++k) {
    RuleSetInput::Rule rule{"r" + std::to_string(k), true, false, false,
                            {static_cast<std::uint32_t>(k)}, {}, {}};
    for (int i = 0; i < 200; ++i)
      rule.resources.push_back("/f/" + std::to_string(k * 200 + i));
    // A path named twice by one rule and once more by the next.
    rule.resources.push_back("/f/" + std::to_string(k * 200));
    if (k > 0)
      rule.resources.push_back("/f/" + std::to_string(k * 200 - 1));
    input.rules.push_back(std::move(rule));
  }
  std::atomic<long> calls{0};
  const auto tables =
      Tables::Build(input, [&](const std::string &p, FileId *id) {
        ++calls;
        *id = FileId{7, std::stoull(p.substr(3)) % 15000};
        return true;
      });
  EXPECT_EQ(tables->resource_count(), 20000u);
  EXPECT_EQ(calls.load(), 20000);
  for (std::uint64_t n = 0; n < 20000; ++n) {
    const auto *holders = tables->RulesOf(FileId{7, n % 15000});
    ASSERT_NE(holders, nullptr) << n;
    std::vector<std::uint32_t> expected;
    for (std::uint64_t path : {n % 15000, n % 15000 + 15000}) {
      if (path >= 20000)
        continue;
      expected.push_back(static_cast<std::uint32_t>(path / 200));
      if (path % 200 == 199 && path / 200 + 1 < 100)
        expected.push_back(static_cast<std::uint32_t>(path / 200 + 1));
    }
    std::sort(expected.begin(), expected.end());
    expected.erase(std::unique(expected.begin(), expected.end()),
                   expected.end());
    std::vector<std::uint32_t> got(holders->begin(), holders->end());
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, expected) << n;
  }
  EXPECT_EQ(tables->RulesOf(FileId{7, 15000}), nullptr);
  EXPECT_EQ(tables->RulesOf(FileId{8, 1}), nullptr);
}

} // namespace
} // namespace aec::engine
