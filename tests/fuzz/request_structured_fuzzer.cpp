// Requests built from the input rather than parsed: a command of the table
// (now and then another name), the attributes and child elements the
// handlers read, with values that are either the words the handlers look
// for or arbitrary bytes (NUL, line breaks and all: the document is built in
// memory, so no XML rule limits them), and the rule-control tool's answer
// (exit code and output lines, with or without the last line break). The
// checks are those of request_check.h.
#include <fuzzer/FuzzedDataProvider.h>

#include <boost/property_tree/ptree.hpp>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_env.h"
#include "lib/xml_document.h"
#include "request_check.h"

namespace pt = boost::property_tree;

namespace {

const char* const kCommands[] = {"reset_policies",
                                 "reset_policy",
                                 "get",
                                 "add",
                                 "edit",
                                 "remove",
                                 "export",
                                 "log",
                                 "loglist",
                                 "reload",
                                 "confirm_hard_mode",
                                 "status_confirmation"};

const char* const kAttributes[] = {
    "rule_resource", "whitelist",    "resource-exception",
    "all_rules",     "name",         "file",
    "state",         "rename",       "recursive",
    "no-depend",     "disable",      "extended",
    "all-users",     "resource-file"};

const char* const kElements[] = {"rule",
                                 "whitelist",
                                 "resource-exception",
                                 "add",
                                 "remove",
                                 "update",
                                 "u",
                                 "g",
                                 "r",
                                 "name",
                                 "source",
                                 "execfile",
                                 "user",
                                 "group",
                                 "users",
                                 "groups",
                                 "execfiles",
                                 "inittime",
                                 "finaltime",
                                 "operationresult",
                                 "openfiles"};

const char* const kWords[] = {"1",     "0",       "true",       "",
                              "all",   "success", "r1",         "/usr/bin/make",
                              "dorvi", "local",   "1795219200", "x'",
                              ".."};

std::string Value(FuzzedDataProvider& input) {
  if (input.ConsumeBool()) return input.PickValueInArray(kWords);
  return input.ConsumeRandomLengthString(300);
}

std::string Name(FuzzedDataProvider& input, bool element) {
  if (input.ConsumeIntegralInRange(0, 15) == 0) {
    return input.ConsumeRandomLengthString(12);
  }
  return element ? input.PickValueInArray(kElements)
                 : input.PickValueInArray(kAttributes);
}

// Attributes live under "<xmlattr>", as the host keeps them; a name is one
// key whatever bytes it holds (no path splitting), and unique.
void SetAttribute(pt::ptree& node, const std::string& name,
                  const std::string& value) {
  auto found = node.find("<xmlattr>");
  pt::ptree& attributes =
      found == node.not_found()
          ? node.push_front({"<xmlattr>", pt::ptree()})->second
          : found->second;
  attributes.erase(name);
  attributes.push_back({name, pt::ptree(value)});
}

pt::ptree Element(FuzzedDataProvider& input, int depth) {
  pt::ptree node;
  const int attributes = input.ConsumeIntegralInRange(0, 4);
  for (int i = 0; i < attributes; ++i) {
    const std::string name = Name(input, false);
    if (name.empty()) continue;
    SetAttribute(node, name, Value(input));
  }
  const int children = depth > 2 ? 0 : input.ConsumeIntegralInRange(0, 6);
  for (int i = 0; i < children; ++i) {
    const std::string name = Name(input, true);
    if (name.empty() || name == "<xmlattr>") continue;
    if (input.ConsumeBool()) {
      node.push_back({name, pt::ptree(Value(input))});
    } else {
      node.push_back({name, Element(input, depth + 1)});
    }
  }
  return node;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kxfuzz::StartPlugin();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  FuzzedDataProvider input(data, size);

  // The tool's answer: a known code or any, lines of any length (4096 and
  // more is the driver's length error), the last one maybe unterminated.
  const int code = input.ConsumeBool() ? input.ConsumeIntegralInRange(0, 26)
                                       : input.ConsumeIntegral<int>();
  std::string output;
  const int lines = input.ConsumeIntegralInRange(0, 3);
  for (int i = 0; i < lines; ++i) {
    if (input.ConsumeIntegralInRange(0, 31) == 0) {
      output += std::string(4096 + input.ConsumeIntegralInRange(0, 8), 'x');
    } else {
      output += input.ConsumeRandomLengthString(80);
    }
    output += '\n';
  }
  if (!output.empty() && input.ConsumeIntegralInRange(0, 7) == 0) {
    output.pop_back();
  }
  kxfuzz::SetToolAnswer(code & 0xff, output);

  const std::string command = input.ConsumeIntegralInRange(0, 15) == 0
                                  ? input.ConsumeRandomLengthString(20)
                                  : input.PickValueInArray(kCommands);
  pt::ptree tree = Element(input, 0);
  SetAttribute(tree, "command", command);
  kxfuzz::RunRequest(
      boost::shared_ptr<IXml>(new kxhost::XmlDocument("request", tree)));
  return 0;
}
