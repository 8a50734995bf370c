#include "aec_config_read.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

using aec::ConfigReadError;
using aec::Links;
using aec::ReadConfigFile;

class ConfigRead : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kx-config-read-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    ASSERT_EQ(std::system(("rm -rf '" + dir_ + "'").c_str()), 0);
  }
  std::string Write(const std::string& name, const std::string& content) {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  ConfigReadError::Kind RefusalOf(const std::string& path, std::size_t max,
                                  Links links = Links::kFollow) {
    try {
      ReadConfigFile(path, max, links);
    } catch (const ConfigReadError& e) {
      EXPECT_NE(std::string(e.what()).find(path), std::string::npos);
      return e.kind();
    }
    ADD_FAILURE() << "read " << path;
    return ConfigReadError::Kind::kIo;
  }
  std::string dir_;
};

TEST_F(ConfigRead, ReadsARegularFileWhole) {
  const std::string content = std::string("{\"a\":\n1}\0tail", 13);
  EXPECT_EQ(ReadConfigFile(Write("f.conf", content), 100), content);
}

TEST_F(ConfigRead, ReadsAFileOfExactlyTheBound) {
  EXPECT_EQ(ReadConfigFile(Write("f", "12345"), 5), "12345");
}

TEST_F(ConfigRead, RefusesAFileOneByteOverTheBound) {
  EXPECT_EQ(RefusalOf(Write("f", "123456"), 5),
            ConfigReadError::Kind::kTooLarge);
}

TEST_F(ConfigRead, ReportsAMissingFileAsMissing) {
  EXPECT_EQ(RefusalOf(dir_ + "/none", 5), ConfigReadError::Kind::kMissing);
}

TEST_F(ConfigRead, RefusesAFifoWithoutWaitingForAWriter) {
  const std::string fifo = dir_ + "/f.conf";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(RefusalOf(fifo, 100), ConfigReadError::Kind::kNotRegular);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(ConfigRead, RefusesADirectoryAndADevice) {
  EXPECT_EQ(RefusalOf(dir_, 100), ConfigReadError::Kind::kNotRegular);
  EXPECT_EQ(RefusalOf("/dev/zero", 100), ConfigReadError::Kind::kNotRegular);
}

TEST_F(ConfigRead, FollowsALinkToARegularFileOnlyWhenAllowed) {
  const std::string target = Write("t", "x");
  const std::string link = dir_ + "/l";
  ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
  EXPECT_EQ(ReadConfigFile(link, 10, Links::kFollow), "x");
  EXPECT_EQ(RefusalOf(link, 10, Links::kRefuse),
            ConfigReadError::Kind::kNotRegular);
}

TEST_F(ConfigRead, RefusesALinkToAFifoWithoutWaiting) {
  const std::string fifo = dir_ + "/fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
  const std::string link = dir_ + "/l.conf";
  ASSERT_EQ(::symlink(fifo.c_str(), link.c_str()), 0);
  EXPECT_EQ(RefusalOf(link, 100), ConfigReadError::Kind::kNotRegular);
}

TEST_F(ConfigRead, ParsesAJsonFileWithinTheDepth) {
  const auto tree = aec::ReadJsonConfigFile(
      Write("w.config", R"({"user_list": ["a", "b"], "group_list": ""})"), 100);
  EXPECT_EQ(tree.get_child("user_list").size(), 2u);
}

TEST_F(ConfigRead, RefusesJsonNestedDeeperThanTheBoundBeforeParsing) {
  const std::size_t depth = aec::kMaxConfigDepth;
  const std::string at_bound =
      std::string(depth, '[') + std::string(depth, ']');
  EXPECT_NO_THROW(aec::ParseConfigJson("at-bound", at_bound));
  const std::string path =
      Write("deep.conf", std::string(100000, '[') + std::string(100000, ']'));
  try {
    aec::ReadJsonConfigFile(path, 1u << 20);
    ADD_FAILURE() << "parsed " << path;
  } catch (const ConfigReadError& e) {
    EXPECT_EQ(e.kind(), ConfigReadError::Kind::kTooDeep);
    EXPECT_EQ(std::string(e.what()), path + ": nested deeper than " +
                                         std::to_string(depth) + " levels");
  }
}

}  // namespace
