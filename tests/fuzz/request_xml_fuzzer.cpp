// Arbitrary request documents through plugin_exec: the input is the XML
// text a client would send, parsed by the host exactly as kxhost parses it
// (text the host refuses never reaches the plug-in). Every command of the
// table is reachable from the seed corpus; the checks are those of
// request_check.h.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "lib/xml_document.h"
#include "request_check.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kxfuzz::StartPlugin();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  boost::shared_ptr<kxhost::XmlDocument> document;
  try {
    document = kxhost::ParseXml(
        std::string(reinterpret_cast<const char*>(data), size));
  } catch (const std::runtime_error&) {
    return 0;
  }
  kxfuzz::RunRequest(document);
  return 0;
}
