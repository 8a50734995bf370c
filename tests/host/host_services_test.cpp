// Reply path, client notification, notices and station blocking of the
// stand-alone host.
#include "host/host_services.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kxtest.h"
#include "lib/runtime.h"
#include "lib/xml_document.h"

namespace {

class HostServices : public kxtest::SandboxTest {
 protected:
  void TearDown() override {
    kxhost::RuntimeOptions options = kxhost::Options();
    options.events_file = "";
    kxhost::Configure(options);
  }
  void UseEventsFile(const std::string& path) {
    kxhost::RuntimeOptions options = kxhost::Options();
    options.events_file = path;
    kxhost::Configure(options);
  }
};

parsed_xml_data_t MakeRequest(const std::string& text) {
  parsed_xml_data_t request;
  request.xml = kxhost::ParseXml(text);
  request.reply = XMLParserBoost::CreateEmptyXML();
  return request;
}

TEST_F(HostServices, SendMessageMarksTheRecordSentAndRecordsTheReply) {
  auto request = MakeRequest(R"(<request command="get"/>)");
  auto result = XMLParserBoost::CreateEmptyXML();
  result->AddValue("result", "1", false);
  request.reply->AddNode("get", result, false);
  send_message(1, &request);
  EXPECT_EQ(request.outcome, 1);
  const auto events = kxhost::Events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].kind, "send_message");
  ASSERT_EQ(events[0].args.size(), 3u);
  EXPECT_EQ(events[0].args[0], "1");
  EXPECT_EQ(events[0].args[1], "get");
  EXPECT_EQ(events[0].args[2],
            "<reply>\n  <get>\n    <result>1</result>\n  </get>\n</reply>\n");
  EXPECT_TRUE(log_.Contains("send_message: reply 1 to 'get'"));
}

TEST_F(HostServices, FreeMsgMemoryMarksTheRecordReleased) {
  auto request = MakeRequest(R"(<request command="nope"/>)");
  free_msg_memory(&request);
  EXPECT_EQ(request.outcome, 2);
  const auto events = kxhost::Events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].kind, "free_msg_memory");
  EXPECT_EQ(events[0].args, std::vector<std::string>{"nope"});
}

TEST_F(HostServices, NullRecordsAreLoggedNotRecorded) {
  send_message(1, nullptr);
  free_msg_memory(nullptr);
  EXPECT_TRUE(kxhost::Events().empty());
  EXPECT_TRUE(log_.Contains("send_message: got NULL request"));
  EXPECT_TRUE(log_.Contains("free_msg_memory: got NULL request"));
}

TEST_F(HostServices, NotificationsAreRecordedInOrder) {
  update_clients("aec");
  send_notify_systemwide("Title", "Text");
  block_station("Failed to apply AEC rules", true);
  const auto events = kxhost::Events();
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[0].kind, "update_clients");
  EXPECT_EQ(events[0].args, std::vector<std::string>{"aec"});
  EXPECT_EQ(events[1].kind, "send_notify_systemwide");
  EXPECT_EQ(events[1].args, (std::vector<std::string>{"Title", "Text"}));
  EXPECT_EQ(events[2].kind, "block_station");
  EXPECT_EQ(events[2].args,
            (std::vector<std::string>{"Failed to apply AEC rules", "1"}));
}

TEST_F(HostServices, BlockStationIsLoggedAsCritical) {
  int priority = -1;
  kxhost::SetLogObserver([&priority](int p, const std::string& line) {
    if (line.find("block_station") != std::string::npos) priority = p;
  });
  block_station("why", false);
  kxhost::SetLogObserver(nullptr);
  EXPECT_EQ(priority, 2);
}

TEST_F(HostServices, EventsFileHoldsOneEscapedLinePerEvent) {
  const std::string path = "/opt/korvex/var/log/events.log";
  UseEventsFile(path);
  update_clients("aec");
  send_notify_systemwide("multi\nline", "tab\there \\ back");
  EXPECT_EQ(kxtest::ReadFile(path),
            "update_clients\taec\n"
            "send_notify_systemwide\tmulti\\nline\ttab\\there \\\\ back\n");
}

TEST_F(HostServices, UnwritableEventsFileIsLoggedAndTheEventStillKept) {
  UseEventsFile("/opt/korvex/no/such/dir/events.log");
  update_clients("aec");
  EXPECT_EQ(kxhost::Events().size(), 1u);
  EXPECT_TRUE(log_.Contains("cannot append to the events file"));
}

TEST_F(HostServices, ClearEventsForgetsThem) {
  update_clients("aec");
  kxhost::ClearEvents();
  EXPECT_TRUE(kxhost::Events().empty());
}

}  // namespace
