// propose and simulate through the service: the request's period and names
// reach kxaecctl as its options, and what the tool printed comes back in
// the reply. The tool here is the fake that records its arguments; the
// learning commands themselves are tested with the real tool in the tools
// suite.
#include <string>
#include <vector>

#include "service_fixture.h"

namespace servicetest {
namespace {

std::vector<std::string> LastToolCall() {
  const auto calls = kxtest::FakeToolCalls("kxaecctl");
  return calls.empty() ? std::vector<std::string>() : calls.back();
}

TEST_F(ServiceTest, ProposeRunsTheToolForThePeriodAndAnswersWithItsReport) {
  kxtest::FakeBehaviour tool;
  tool.lines = {"{ \"name\": \"learned-make\" }"};
  kxtest::InstallFakeTool("kxaecctl", tool);
  Service service(root_.dir());
  const std::string reply =
      Ask(socket(),
          "<kxserv command=\"propose\" since=\"100\" until=\"200\" "
          "user=\"alice\" group=\"staff\"/>");
  EXPECT_EQ(Field(reply, "result"), "1");
  EXPECT_EQ(Field(reply, "exit_code"), "0");
  EXPECT_NE(Field(reply, "report").find("learned-make"), std::string::npos)
      << reply;
  EXPECT_EQ(LastToolCall(), (std::vector<std::string>{
                                "propose", "--since", "100", "--until", "200",
                                "--user", "alice", "--group", "staff"}));
}

TEST_F(ServiceTest, SimulateFindingDenialsIsAnAnswerNotAFailure) {
  kxtest::FakeBehaviour tool;
  tool.exit_code = 26;
  tool.lines = {"/usr/local/bin/backup", "  alice: 3 denied"};
  kxtest::InstallFakeTool("kxaecctl", tool);
  Service service(root_.dir());
  const std::string reply =
      Ask(socket(), "<kxserv command=\"simulate\" since=\"5\"/>");
  EXPECT_EQ(Field(reply, "result"), "1");
  EXPECT_EQ(Field(reply, "exit_code"), "26");
  EXPECT_NE(Field(reply, "report").find("alice: 3 denied"), std::string::npos);
  EXPECT_EQ(LastToolCall(), (std::vector<std::string>{"simulate", "--mode",
                                                      "hard", "--since", "5"}));
}

TEST_F(ServiceTest, AFailingLearningRunAnswersResultZeroWithItsExitCode) {
  kxtest::FakeBehaviour tool;
  tool.exit_code = 11;
  kxtest::InstallFakeTool("kxaecctl", tool);
  Service service(root_.dir());
  const std::string reply = Ask(socket(), "<kxserv command=\"propose\"/>");
  EXPECT_EQ(Field(reply, "result"), "0");
  EXPECT_EQ(Field(reply, "exit_code"), "11");
  EXPECT_EQ(LastToolCall(), (std::vector<std::string>{"propose"}));
}

TEST_F(ServiceTest, LearningRequestsRefuseValuesThatAreNotTimesOrNames) {
  Service service(root_.dir());
  const std::size_t runs_before = kxtest::FakeToolCalls("kxaecctl").size();
  for (const char* request :
       {"<kxserv command=\"propose\" since=\"1;reboot\"/>",
        "<kxserv command=\"propose\" user=\"--apply\"/>",
        "<kxserv command=\"simulate\" until=\"-1\"/>"}) {
    const std::string reply = Ask(socket(), request);
    EXPECT_EQ(Field(reply, "result"), "0") << request;
    EXPECT_EQ(Field(reply, "error_code"), "bad_request") << request;
  }
  EXPECT_EQ(kxtest::FakeToolCalls("kxaecctl").size(), runs_before);
}

}  // namespace
}  // namespace servicetest
