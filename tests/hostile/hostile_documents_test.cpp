// Documents built to break the host rather than the plug-in: nesting deep
// enough to exhaust the parser's stack (a 25,000-deep request ended kxhost
// with SIGSEGV), sizes beyond any real request, and values whose bytes XML
// cannot carry, which came back in replies that no XML parser accepts.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "kxtest.h"
#include "support/well_formed_xml.h"

namespace {

std::string Repeat(const std::string& text, std::size_t n) {
  std::string out;
  out.reserve(text.size() * n);
  for (std::size_t i = 0; i < n; ++i) out += text;
  return out;
}

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class HostileDocuments : public kxtest::SandboxTest {
 protected:
  void SetUp() override {
    for (const char* tool : {"kxaecctl", "kxaide"}) {
      kxtest::InstallFakeTool(tool, {});
    }
  }

  // kxhost on this test's root with `step` reading `document` from a file,
  // its log on standard error; `seconds` receives the wall-clock time of
  // the run.
  kxtest::RunResult Run(const std::string& step, const std::string& document,
                        double* seconds = nullptr) {
    const std::string file = root_.dir() + "/document";
    kxtest::WriteFile(file, document);
    const auto start = std::chrono::steady_clock::now();
    auto result = kxtest::RunKxhost(
        {"--root", root_.dir(), "--plugin", KX_PLUGIN_PATH, "-v", step, file});
    if (seconds != nullptr) {
      *seconds = std::chrono::duration<double>(
                     std::chrono::steady_clock::now() - start)
                     .count();
    }
    return result;
  }
};

TEST_F(HostileDocuments, ADeeplyNestedRequestIsRefusedWithoutCrashing) {
  const std::size_t n = 25000;
  const std::string request = "<request command=\"add\"><rule name=\"r\"><u>" +
                              Repeat("<a>", n) + Repeat("</a>", n) +
                              "</u></rule></request>";
  const auto result = Run("exec", request);
  EXPECT_EQ(result.exit_code, 2) << result.err;
  EXPECT_TRUE(Has(result.err, "nested deeper than 64 levels")) << result.err;
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(kxtest::FakeToolCalls("kxaecctl").empty());
}

TEST_F(HostileDocuments, ADeeplyNestedPoliciesDocumentIsRefusedAtOnce) {
  const std::size_t n = 100000;
  const std::string policies =
      "<policies><policy group=\"aec\" name=\"exceptions\"><value>" +
      Repeat("<r>", n) + Repeat("</r>", n) + "</value></policy></policies>";
  double seconds = 0;
  const auto result = Run("set-policies", policies, &seconds);
  EXPECT_EQ(result.exit_code, 2) << result.err;
  EXPECT_TRUE(Has(result.err, "nested deeper than 64 levels")) << result.err;
  EXPECT_LT(seconds, 10.0);
}

TEST_F(HostileDocuments, ADeeplyNestedImportDocumentIsRefusedAtOnce) {
  const std::size_t n = 100000;
  const std::string import =
      "{\"policies\": [{\"group\": \"aec\", \"name\": \"exceptions\", "
      "\"value\": " +
      Repeat("[", n) + Repeat("]", n) + "}]}";
  double seconds = 0;
  const auto result = Run("import-policies", import, &seconds);
  EXPECT_EQ(result.exit_code, 2) << result.err;
  EXPECT_TRUE(Has(result.err, "nested deeper than 64 levels")) << result.err;
  EXPECT_LT(seconds, 10.0);
}

// The configuration files are JSON read by a parser of the same kind: a
// rule file nested 100,000 deep ended the plug-in's reader (and with it
// kxhost) on its stack. It is refused like a rule file that does not
// parse, and the other rules are still answered.
TEST_F(HostileDocuments,
       ADeeplyNestedRuleFileIsRefusedAndTheOtherRulesAnswered) {
  const std::string rules = root_.dir() + "/etc/aec/rules/";
  kxtest::WriteFile(rules + "r1.conf",
                    "{\"name\": \"r1\", \"all_allowed\": \"false\", "
                    "\"extended\": \"false\", \"system\": \"false\", "
                    "\"enable\": \"true\", \"user_list\": [\"root\"], "
                    "\"group_list\": \"\", \"resource_list\": [\"/bin/ls\"]}");
  kxtest::WriteFile(rules + "deep.conf",
                    "{\"name\": \"deep\", \"x\": " + Repeat("[", 100000) +
                        Repeat("]", 100000) + "}");
  const auto listing =
      Run("exec", "<request command=\"get\"><rule/></request>");
  ASSERT_EQ(listing.exit_code, 0) << listing.err;
  EXPECT_TRUE(Has(listing.out, "<result>0</result>")) << listing.out;
  EXPECT_TRUE(Has(listing.err, "deep.conf: nested deeper than 64 levels"))
      << listing.err;
  const auto named =
      Run("exec", "<request command=\"get\"><rule>r1</rule></request>");
  ASSERT_EQ(named.exit_code, 0) << named.err;
  EXPECT_TRUE(Has(named.out, "<name>r1</name>")) << named.out;
}

TEST_F(HostileDocuments, ADeeplyNestedExceptionsFileIsRefusedAndGetAnswered) {
  kxtest::WriteFile(
      root_.dir() + "/etc/aec/resource-exception.conf",
      "{\"resource_list\": " + Repeat("[", 100000) + Repeat("]", 100000) + "}");
  const auto run = Run("exec",
                       "<request command=\"get\" whitelist=\"1\" "
                       "resource-exception=\"1\"/>");
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_TRUE(Has(run.out, "<error_desc>E_INVALID_CONFIG: </error_desc>"))
      << run.out;
  EXPECT_TRUE(Has(run.err, "resource-exception.conf: nested deeper than 64"))
      << run.err;
}

// The plug-in does not start without a readable whitelist; a deep one is
// one that cannot be read, not a crash.
TEST_F(HostileDocuments, ADeeplyNestedWhitelistEndsTheStartWithoutCrashing) {
  kxtest::WriteFile(root_.dir() + "/etc/aec/white-list.config",
                    "{\"user_list\": " + Repeat("[", 100000) +
                        Repeat("]", 100000) + ", \"group_list\": \"\"}");
  const auto run = Run("exec", "<request command=\"get\" whitelist=\"1\"/>");
  EXPECT_EQ(run.exit_code, 1) << run.err;
  EXPECT_TRUE(Has(run.err, "white-list.config: nested deeper than 64"))
      << run.err;
}

TEST_F(HostileDocuments, ARequestLargerThanTheSizeLimitIsRefused) {
  const std::string request = "<request command=\"get\"><rule>" +
                              std::string((16u << 20) + 1, 'x') +
                              "</rule></request>";
  const auto result = Run("exec", request);
  EXPECT_EQ(result.exit_code, 2) << result.err;
  EXPECT_TRUE(Has(result.err, "larger than 16777216 bytes")) << result.err;
}

TEST_F(HostileDocuments, NestingWithinTheLimitIsStillAnswered) {
  // 60 levels inside a request of 2: below the limit of 64.
  const std::string request = "<request command=\"get\"><extra>" +
                              Repeat("<a>", 60) + Repeat("</a>", 60) +
                              "</extra></request>";
  const auto result = Run("exec", request);
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_TRUE(Has(result.out, "<reply>")) << result.out;
}

TEST_F(HostileDocuments, ARuleNameThatIsNotTextGivesAWellFormedReply) {
  // A byte that is no UTF-8 and U+FFFF, which XML cannot carry; the reply
  // quotes the name in its error text with U+FFFD in their place.
  const std::string request =
      "<request command=\"get\"><rule>bad\xffname\xef\xbf\xbf"
      "</rule></request>";
  const auto result = Run("exec", request);
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(kxtest::XmlWellFormednessError(result.out), "") << result.out;
  EXPECT_TRUE(Has(result.out, "bad\xef\xbf\xbdname\xef\xbf\xbd"))
      << result.out;
}

// Control characters never reach the plug-in: the host's reader refuses
// the request, raw or as a character reference, before anything runs.
TEST_F(HostileDocuments, AControlCharacterInARequestIsRefusedOnTheWayIn) {
  for (const std::string& request :
       {std::string("<request command=\"get\"><rule>bad\x1bname</rule>"
                    "</request>"),
        std::string("<request command=\"get\"><rule>evil&#27;[2J&#1;</rule>"
                    "</request>")}) {
    const auto result = Run("exec", request);
    EXPECT_EQ(result.exit_code, 2) << result.err;
    EXPECT_TRUE(Has(result.err, "character U+001B")) << result.err;
    EXPECT_FALSE(Has(result.out, "<reply>")) << result.out;
  }
}

}  // namespace
