// Central policy intake through the spool directory.
#include <stdio.h>

#include <string>

#include "policy_documents.h"
#include "service_fixture.h"

namespace servicetest {
namespace {

const std::string kSpool = "/opt/korvex/var/spool/policies/";

// Written beside the spool as a dot-file and renamed in, as a writer must.
void Drop(const std::string& name, const std::string& content) {
  kxtest::WriteFile(kSpool + "." + name + ".part", content);
  ASSERT_EQ(
      rename((kSpool + "." + name + ".part").c_str(), (kSpool + name).c_str()),
      0);
}

std::string Policies(const std::string& socket) {
  return Ask(socket, "<kxserv command=\"policies\"/>");
}

TEST_F(ServiceTest, SpoolXmlDocumentIsAppliedAndMovedToDone) {
  Service service(root_.dir());
  Drop("10-control-on.xml", StatePolicies(1, 0));
  ASSERT_TRUE(WaitFor([] {
    return kxtest::Exists(kSpool + "done/10-control-on.xml");
  })) << service.Log();
  EXPECT_FALSE(kxtest::Exists(kSpool + "10-control-on.xml"));
  EXPECT_EQ(
      kxtest::ReadFile("/opt/korvex/var/run/sysctl/korvex/secure/environment"),
      "1");
  EXPECT_NE(service.Log().find("spool: applied 10-control-on.xml"),
            std::string::npos);
}

TEST_F(ServiceTest, SpoolJsonDocumentIsImported) {
  Service service(root_.dir());
  Drop("20-import", ImportDocument("from-spool", "bob"));
  ASSERT_TRUE(WaitFor([] { return kxtest::Exists(kSpool + "done/20-import"); }))
      << service.Log();
  EXPECT_TRUE(kxtest::Exists("/opt/korvex/etc/aec/rules/from-spool.conf"));
  EXPECT_NE(
      kxtest::ReadFile("/opt/korvex/etc/aec/white-list.config").find("bob"),
      std::string::npos);
}

TEST_F(ServiceTest, BadSpoolDocumentGoesToFailedWithItsReason) {
  Service service(root_.dir());
  Drop("30-broken.json", "{\"policies\": [");
  Drop("31-neither", "policies, please");
  ASSERT_TRUE(WaitFor([] {
    return kxtest::Exists(kSpool + "failed/31-neither.reason") &&
           kxtest::Exists(kSpool + "failed/30-broken.json.reason");
  })) << service.Log();
  EXPECT_TRUE(kxtest::Exists(kSpool + "failed/30-broken.json"));
  EXPECT_NE(kxtest::ReadFile(kSpool + "failed/30-broken.json.reason")
                .find("malformed JSON"),
            std::string::npos);
  EXPECT_NE(kxtest::ReadFile(kSpool + "failed/31-neither.reason")
                .find("neither an XML policies document nor a JSON"),
            std::string::npos);
  // Nothing stored was lost, and the service goes on.
  EXPECT_EQ(Field(Policies(socket()), "result"), "1");
}

// Boost's JSON reader descends one call per level: an import nested this
// deep would end the service on its stack instead of failing the document.
TEST_F(ServiceTest, ADeeplyNestedImportGoesToFailedAndTheServiceGoesOn) {
  Service service(root_.dir());
  const std::size_t n = 100000;
  Drop("35-deep.json",
       "{\"policies\": " + std::string(n, '[') + std::string(n, ']') + "}");
  ASSERT_TRUE(WaitFor([] {
    return kxtest::Exists(kSpool + "failed/35-deep.json.reason");
  })) << service.Log();
  EXPECT_NE(kxtest::ReadFile(kSpool + "failed/35-deep.json.reason")
                .find("nested deeper than 64 levels"),
            std::string::npos);
  EXPECT_EQ(Field(Policies(socket()), "result"), "1");
}

TEST_F(ServiceTest, ADeeplyNestedImportRequestIsRefusedAndTheServiceGoesOn) {
  Service service(root_.dir());
  const std::size_t n = 100000;
  const std::string reply =
      Ask(socket(),
          "<kxserv command=\"import-policies\"><json>{\"policies\": " +
              std::string(n, '[') + std::string(n, ']') + "}</json></kxserv>");
  EXPECT_EQ(Field(reply, "result"), "0") << reply;
  EXPECT_NE(Field(reply, "error_desc").find("nested deeper than 64 levels"),
            std::string::npos)
      << reply;
  EXPECT_EQ(Field(Policies(socket()), "result"), "1");
}

TEST_F(ServiceTest, WaitingDocumentsAreAppliedAtStartInNameOrder) {
  kxtest::WriteFile(kSpool + "b-control-off.xml", StatePolicies(0, 0));
  kxtest::WriteFile(kSpool + "a-control-on.xml", StatePolicies(1, 0));
  Service service(root_.dir());
  ASSERT_TRUE(WaitFor([] {
    return kxtest::Exists(kSpool + "done/a-control-on.xml") &&
           kxtest::Exists(kSpool + "done/b-control-off.xml");
  })) << service.Log();
  // b came last: control is off.
  EXPECT_EQ(
      kxtest::ReadFile("/opt/korvex/var/run/sysctl/korvex/secure/environment"),
      "0");
  const std::string log = service.Log();
  EXPECT_LT(log.find("spool: applied a-control-on.xml"),
            log.find("spool: applied b-control-off.xml"));
}

TEST_F(ServiceTest, HalfWrittenDotFileIsNeverRead) {
  Service service(root_.dir());
  kxtest::WriteFile(kSpool + ".incoming.xml", "<policies><policy group=");
  // A document renamed in afterwards is applied; the dot-file stays as it is.
  Drop("40-control-on.xml", StatePolicies(1, 0));
  ASSERT_TRUE(WaitFor(
      [] { return kxtest::Exists(kSpool + "done/40-control-on.xml"); }));
  EXPECT_TRUE(kxtest::Exists(kSpool + ".incoming.xml"));
  EXPECT_FALSE(kxtest::Exists(kSpool + "failed/.incoming.xml"));
}

TEST_F(ServiceTest, SameNameDroppedTwiceIsKeptTwiceInDone) {
  Service service(root_.dir());
  Drop("50-on.xml", StatePolicies(1, 0));
  ASSERT_TRUE(
      WaitFor([] { return kxtest::Exists(kSpool + "done/50-on.xml"); }));
  Drop("50-on.xml", StatePolicies(1, 0));
  ASSERT_TRUE(
      WaitFor([] { return kxtest::Exists(kSpool + "done/50-on.xml.1"); }));
}

}  // namespace
}  // namespace servicetest
