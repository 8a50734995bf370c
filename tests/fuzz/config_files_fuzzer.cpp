// The readers of the whitelist file and the resource-exception file, and the
// "get" command's sections that show them: whatever the bytes in either
// file, the whitelist read fails with the plug-in's PluginException or
// yields two lists, the exceptions policy starts (with an empty set when the
// file is broken) and "get" answers every section it was asked for.
//
// Built twice: KXFUZZ_EXCEPTIONS 0 fuzzes the whitelist file
// (fuzz_whitelist_file), 1 the exception file (fuzz_exceptions_file). The
// input is the file's content.
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "aec_commands.h"
#include "aec_config_read.h"
#include "aec_policies/aecexceptionspolicy.h"
#include "aecwhitelist.h"
#include "fuzz_env.h"
#include "host/document_limits.h"
#include "host/errors.h"
#include "host/policy_manager.h"
#include "lib/xml_document.h"

namespace pt = boost::property_tree;

namespace {

const std::string kWhitelistPath = "/opt/korvex/etc/aec/white-list.config";
const std::string kExceptionsPath =
    "/opt/korvex/etc/aec/resource-exception.conf";

std::unique_ptr<kxfuzz::Baseline> g_baseline;
std::unique_ptr<KernelPolicyManager> g_manager;

// Both sections asked for; each must be there, with a result of its own.
void CheckGet() {
  parsed_xml_data_t request;
  request.xml = kxhost::ParseXml(
      "<request command=\"get\" whitelist=\"1\" resource-exception=\"1\"/>");
  request.reply = XMLParserBoost::CreateEmptyXML();
  aec::HandleGet(&request);
  const auto get = request.reply->GetNode("get");
  KXFUZZ_CHECK(get != nullptr, "get answered nothing");
  for (const char* section : {"whitelist", "resource-exception"}) {
    const auto node = get->GetNode(section);
    KXFUZZ_CHECK(node != nullptr, std::string("no section ") + section);
    std::unique_ptr<char[]> result(node->GetParam("result"));
    KXFUZZ_CHECK(result != nullptr, std::string("no result in ") + section);
  }
}

[[maybe_unused]] void FuzzWhitelist(const std::string& text) {
  kxfuzz::WriteFile(kWhitelistPath, text);
  try {
    AECWhiteList::Get();
  } catch (const PluginException&) {
  }
  try {
    pt::ptree tree;
    std::istringstream in(text);
    pt::read_json(in, tree);
    AECWhiteList::Get(tree);
  } catch (const pt::ptree_error&) {
  }
  CheckGet();
}

[[maybe_unused]] void FuzzExceptions(const std::string& text) {
  kxfuzz::WriteFile(kExceptionsPath, text);
  AecExceptionsPolicy policy(*g_manager);
  // A file that the JSON reader takes, that nests within the configuration
  // files' bound and that holds "resource_list" gives exactly its element
  // values; anything else the empty set.
  std::set<std::string> expected;
  try {
    kxdoc::CheckJsonLimits(
        text, kxdoc::DocumentLimits{std::numeric_limits<std::size_t>::max(),
                                    aec::kMaxConfigDepth});
    pt::ptree tree;
    std::istringstream in(text);
    pt::read_json(in, tree);
    expected = AecExceptionsPolicy::Get(tree);
  } catch (const pt::ptree_error&) {
    expected.clear();
  } catch (const kxdoc::DocumentLimitError&) {
    expected.clear();
  }
  KXFUZZ_CHECK(policy.Exceptions() == expected,
               "the policy holds other exceptions than the file");
  CheckGet();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kxfuzz::EnterFuzzSandbox();
  g_manager = std::make_unique<KernelPolicyManager>("aec", "aec", "", 32);
  g_baseline = std::make_unique<kxfuzz::Baseline>(
      std::vector<std::string>{"/opt/korvex/etc"});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
#if KXFUZZ_EXCEPTIONS
  FuzzExceptions(text);
#else
  FuzzWhitelist(text);
#endif
  g_baseline->Restore(nullptr);
  return 0;
}
