// The host's log: formatting, the observer, the Boost.Log bridge and the
// mirror on standard error.
#include "host/log.h"

#include <gtest/gtest.h>

#include <boost/log/trivial.hpp>
#include <string>
#include <utility>
#include <vector>

#include "kxtest.h"
#include "lib/runtime.h"

namespace {

class HostLog : public ::testing::Test {
 protected:
  void SetUp() override {
    kxhost::SetLogObserver([this](int priority, const std::string& line) {
      seen_.emplace_back(priority, line);
    });
  }
  void TearDown() override {
    kxhost::SetLogObserver(nullptr);
    kxhost::RuntimeOptions options = kxhost::Options();
    options.mirror_to_stderr = false;
    kxhost::Configure(options);
  }
  void Mirror(bool on) {
    kxhost::RuntimeOptions options = kxhost::Options();
    options.mirror_to_stderr = on;
    kxhost::Configure(options);
  }
  std::vector<std::pair<int, std::string>> seen_;
};

TEST_F(HostLog, ObserverGetsFileLineAndFormattedText) {
  log_message("aec_plugin", 894, 6, 24, "kx_serv", "[%d] %s: uninitialized",
              0x10000006, "aec");
  ASSERT_EQ(seen_.size(), 1u);
  EXPECT_EQ(seen_[0].first, 6);
  EXPECT_EQ(seen_[0].second, "aec_plugin:894: [268435462] aec: uninitialized");
}

TEST_F(HostLog, LongMessagesAreNotCut) {
  const std::string long_text(5000, 'x');
  log_message("f", 1, 3, 24, "kx_serv", "[%d] %s: %s", 1, "aec",
              long_text.c_str());
  ASSERT_EQ(seen_.size(), 1u);
  EXPECT_EQ(seen_[0].second, "f:1: [1] aec: " + long_text);
}

TEST_F(HostLog, NullFormatIsIgnored) {
  log_message("f", 1, 3, 24, "kx_serv", nullptr);
  EXPECT_TRUE(seen_.empty());
}

TEST_F(HostLog, TrivialLoggerRecordsReachTheHostLogWithSyslogPriorities) {
  BOOST_LOG_TRIVIAL(error) << "cannot parse rule file";
  BOOST_LOG_TRIVIAL(warning) << "w";
  BOOST_LOG_TRIVIAL(info) << "i";
  BOOST_LOG_TRIVIAL(debug) << "d";
  BOOST_LOG_TRIVIAL(trace) << "t";
  ASSERT_EQ(seen_.size(), 5u);
  EXPECT_EQ(seen_[0].first, 3);
  EXPECT_NE(seen_[0].second.find("cannot parse rule file"), std::string::npos);
  EXPECT_EQ(seen_[1].first, 4);
  EXPECT_EQ(seen_[2].first, 6);
  EXPECT_EQ(seen_[3].first, 7);
  EXPECT_EQ(seen_[4].first, 7);
}

TEST_F(HostLog, TrivialLoggerDoesNotPrintOnItsOwn) {
  ::testing::internal::CaptureStderr();
  ::testing::internal::CaptureStdout();
  BOOST_LOG_TRIVIAL(error) << "quiet please";
  const std::string out = ::testing::internal::GetCapturedStdout();
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(out, "");
  EXPECT_EQ(err, "");
  ASSERT_EQ(seen_.size(), 1u);
}

TEST_F(HostLog, LogTrivialWritesTrivialLoggerRecordsAtTheGivenPriority) {
  log_trivial(3, "failed to parse AEC rule: No such node (system)");
  log_trivial(4, "w");
  log_trivial(5, "n");
  log_trivial(6, "i");
  log_trivial(7, "d");
  log_trivial(2, "f");
  ASSERT_EQ(seen_.size(), 6u);
  EXPECT_EQ(seen_[0].first, 3);
  EXPECT_EQ(seen_[0].second,
            "trivial:0: failed to parse AEC rule: No such node (system)");
  EXPECT_EQ(seen_[1].first, 4);
  EXPECT_EQ(seen_[2].first, 6);  // the logger has no level between
  EXPECT_EQ(seen_[3].first, 6);
  EXPECT_EQ(seen_[4].first, 7);
  EXPECT_EQ(seen_[5].first, 2);
  EXPECT_EQ(seen_[5].second, "trivial:0: f");
}

TEST_F(HostLog, MirrorWritesSyslogLikeLinesToStderr) {
  Mirror(true);
  ::testing::internal::CaptureStderr();
  log_message("networkconfig", 12, 7, 24, "kx_serv", "[%d] %s: hello %s",
              0x47000007, "aec", "world");
  BOOST_LOG_TRIVIAL(error) << "bad file";
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find(" kx_serv[" + std::to_string(getpid()) +
                     "]: networkconfig:12: [1191182343] aec: hello world\n"),
            std::string::npos)
      << err;
  EXPECT_NE(err.find("bad file\n"), std::string::npos) << err;
}

TEST_F(HostLog, NoMirrorByDefault) {
  ::testing::internal::CaptureStderr();
  log_message("f", 1, 6, 24, "kx_serv", "[%d] %s: silent", 6, "aec");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(HostLog, ObserverMayLogItself) {
  kxhost::SetLogObserver([this](int priority, const std::string& line) {
    seen_.emplace_back(priority, line);
    if (seen_.size() == 1) log_message("inner", 2, 7, 24, "kx_serv", "again");
  });
  log_message("outer", 1, 6, 24, "kx_serv", "first");
  ASSERT_EQ(seen_.size(), 2u);
  EXPECT_EQ(seen_[1].second, "inner:2: again");
}

TEST_F(HostLog, LogCaptureCollectsLines) {
  kxhost::SetLogObserver(nullptr);
  kxtest::LogCapture capture;
  log_message("aec_plugin", 3, 3, 24, "kx_serv",
              "[%d] %s: received unknown command '%s', ignoring it", 3, "aec",
              "Get");
  EXPECT_TRUE(capture.Contains("received unknown command 'Get', ignoring it"));
  EXPECT_FALSE(capture.Contains("something else"));
  capture.Clear();
  EXPECT_TRUE(capture.Lines().empty());
}

}  // namespace
