// Policy sources that are not UTF-8, found by the hostile suite: a source
// holding a byte such as 0xff was written into policy-sources.conf as it
// was, the JSON reader then refused the whole file, and at the next start
// every source fell back to its default (central control of the whitelist
// included). Such a byte is now written as its code point.
#include <gtest/gtest.h>

#include <boost/property_tree/json_parser.hpp>
#include <fstream>
#include <string>

#include "host/policy_sources.h"
#include "kxtest.h"

namespace {

namespace pt = boost::property_tree;

class PolicySourcesEncoding : public kxtest::SandboxTest {
 protected:
  // Writes the three sources, reads them back as the next start would.
  void RoundTrip(const std::string& rules, const std::string& exceptions,
                 const std::string& whitelist) {
    AecPolicySources* sources = AecPolicySources::Get();
    sources->SetRulesSource(rules);
    sources->SetExceptionSource(exceptions);
    sources->SetWhitelistSource(whitelist);
    ASSERT_TRUE(sources->WriteConfig());
    sources->ReadConfig();
  }
};

TEST_F(PolicySourcesEncoding, ASourceThatIsNotUtf8KeepsTheRecordReadable) {
  RoundTrip("\xff\xfe", "abc\xc3", "dorvi");
  std::ifstream in(AecPolicySources::ConfigPath());
  pt::ptree tree;
  EXPECT_NO_THROW(pt::read_json(in, tree))
      << kxtest::ReadFile(AecPolicySources::ConfigPath());
  AecPolicySources* sources = AecPolicySources::Get();
  // Each stray byte comes back as the UTF-8 of its code point; the other
  // sources are untouched by it.
  EXPECT_EQ(sources->GetRulesSource(), "\xc3\xbf\xc3\xbe");
  EXPECT_EQ(sources->GetExceptionSource(), "abc\xc3\x83");
  EXPECT_EQ(sources->GetWhitelistSource(), "dorvi");
  EXPECT_FALSE(log_.Contains("cannot read"));
}

TEST_F(PolicySourcesEncoding, Utf8AndControlCharactersComeBackAsTheyWere) {
  const std::string text =
      "\xc3\xbc\xe2\x82\xac\xf0\x9f\x98\x80 \"q\" \\ \t\n\x01";
  RoundTrip(text, "local", "");
  EXPECT_EQ(AecPolicySources::Get()->GetRulesSource(), text);
  EXPECT_EQ(AecPolicySources::Get()->GetExceptionSource(), "local");
}

TEST_F(PolicySourcesEncoding, OverlongFormsAndSurrogatesAreNotPassedOn) {
  // Not UTF-8 either, though some readers let them through.
  RoundTrip("\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80");
  std::ifstream in(AecPolicySources::ConfigPath());
  pt::ptree tree;
  EXPECT_NO_THROW(pt::read_json(in, tree));
  EXPECT_EQ(AecPolicySources::Get()->GetRulesSource(), "\xc3\x80\xc2\xaf");
}

}  // namespace
