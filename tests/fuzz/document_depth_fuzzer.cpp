// The host's depth and size checks against the parsers they guard, and the
// host's writer against an independent XML parser.
//
// The first input byte picks the document: raw XML text, raw JSON text, or
// XML or JSON built by a structure-aware generator from the remaining
// bytes, which nests deeply (up to 300 levels) through names with quotes,
// attribute values holding "/>" and "<", comments, CDATA and instructions,
// the places where a scan can lose count.
//
// Properties:
//  - XML the parser accepts with nesting depth d: CheckXmlLimits accepts it
//    with a limit of d and refuses it with d - 1 (the count is exact).
//  - JSON the parser accepts, whose tree is d levels deep: CheckJsonLimits
//    refuses it with a limit of d - 1 (the count never falls short).
//  - Every XML document that ParseXml accepts, with a value of arbitrary
//    bytes added, prints (ToString) as XML that expat accepts.
//
// Generated depth stays at 300 levels at most, which the unguarded parsers
// take on the fuzzer's stack, and generated text at 64 KiB.
#include <expat.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>

#include "host/document_limits.h"
#include "lib/xml_document.h"

namespace pt = boost::property_tree;

namespace {

constexpr std::size_t kMaxGeneratedDepth = 300;
// Longer generated documents only cost time: the parsers are linear in
// length, and depth is what the checks are about.
constexpr std::size_t kMaxGeneratedBytes = 64 * 1024;

[[noreturn]] void Violated(const char* what) {
  std::fprintf(stderr, "property violated: %s\n", what);
  std::abort();
}

std::size_t TreeDepth(const pt::ptree& tree) {
  std::size_t deepest = 0;
  for (const auto& child : tree) {
    // The parser's own keys; an element may be named "<x" all the same.
    if (child.first == "<xmlattr>" || child.first == "<xmlcomment>" ||
        child.first == "<xmltext>") {
      continue;
    }
    const std::size_t below = 1 + TreeDepth(child.second);
    if (below > deepest) deepest = below;
  }
  return deepest;
}

// Whether `check` (CheckXmlLimits or CheckJsonLimits) lets `text` through
// at a depth limit of `depth`.
bool Accepted(void (*check)(std::string_view, const kxdoc::DocumentLimits&),
              const std::string& text, std::size_t depth) {
  try {
    check(text, kxdoc::DocumentLimits{1u << 30, depth});
    return true;
  } catch (const kxdoc::DocumentLimitError&) {
    return false;
  }
}

bool XmlAccepted(const std::string& text, std::size_t depth) {
  return Accepted(kxdoc::CheckXmlLimits, text, depth);
}

bool JsonAccepted(const std::string& text, std::size_t depth) {
  return Accepted(kxdoc::CheckJsonLimits, text, depth);
}

bool WellFormed(const std::string& text) {
  XML_Parser parser = XML_ParserCreate("UTF-8");
  const bool ok = XML_Parse(parser, text.data(), static_cast<int>(text.size()),
                            1) == XML_STATUS_OK;
  XML_ParserFree(parser);
  return ok;
}

class Bytes {
 public:
  Bytes(const std::uint8_t* data, std::size_t size)
      : data_(data), size_(size) {}
  bool empty() const { return at_ >= size_; }
  std::uint8_t Next() { return at_ < size_ ? data_[at_++] : 0; }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t at_ = 0;
};

std::string GenerateXml(Bytes bytes) {
  static const char* const kNames[] = {"a", "a\"b", "a='x", "r", "x:y", "v"};
  std::string text;
  std::size_t open = 0;
  std::string stack;  // the index of each open element's name
  while (!bytes.empty() && text.size() < kMaxGeneratedBytes) {
    const std::uint8_t op = bytes.Next();
    const std::size_t repeat = 1 + (op >> 3);
    for (std::size_t i = 0; i < repeat; ++i) {
      switch (op & 7) {
        case 0:
        case 1:
          if (open < kMaxGeneratedDepth) {
            const std::size_t name = (op >> 1) % 6;
            text += std::string("<") + kNames[name] +
                    ((op & 1) ? " x=\"/>\" y='<c>'" : "") + ">";
            stack.push_back(static_cast<char>(name));
            ++open;
          }
          break;
        case 2:
          if (open > 0) {
            text += std::string("</") + kNames[static_cast<int>(stack.back())] +
                    ">";
            stack.pop_back();
            --open;
          }
          break;
        case 3:
          text += "<e v='/>'/>";
          break;
        case 4:
          text += "<!-- <a><a> -->";
          break;
        case 5:
          text += "<![CDATA[<a><b>]]>";
          break;
        case 6:
          text += "<?p <a> ?>";
          break;
        default:
          text += static_cast<char>(bytes.Next());
      }
    }
  }
  while (open > 0) {
    text += std::string("</") + kNames[static_cast<int>(stack.back())] + ">";
    stack.pop_back();
    --open;
  }
  return text;
}

std::string GenerateJson(Bytes bytes) {
  std::string text;
  std::string closers;
  while (!bytes.empty() && text.size() < kMaxGeneratedBytes) {
    const std::uint8_t op = bytes.Next();
    const std::size_t repeat = 1 + (op >> 3);
    for (std::size_t i = 0; i < repeat; ++i) {
      switch (op & 7) {
        case 0:
          if (closers.size() < kMaxGeneratedDepth) {
            text += '[';
            closers += ']';
          }
          break;
        case 1:
          if (closers.size() < kMaxGeneratedDepth) {
            text += "{\"k\":";
            closers += '}';
          }
          break;
        case 2:
          if (!closers.empty()) {
            text += closers.back();
            closers.pop_back();
          }
          break;
        case 3:
          text += "\"[{\\\"[\"";
          break;
        case 4:
          text += ',';
          break;
        default:
          text += static_cast<char>(bytes.Next());
      }
    }
  }
  while (!closers.empty()) {
    text += closers.back();
    closers.pop_back();
  }
  return text;
}

void CheckXml(const std::string& text, const std::string& value) {
  pt::ptree tree;
  std::istringstream in(text);
  try {
    pt::read_xml(in, tree, pt::xml_parser::no_comments);
  } catch (const pt::xml_parser_error&) {
    return;
  }
  const std::size_t depth = TreeDepth(tree);
  if (!XmlAccepted(text, depth)) {
    std::fprintf(stderr, "depth %zu: %s\n", depth, text.c_str());
    Violated("XML refused at its own depth");
  }
  if (depth > 0 && XmlAccepted(text, depth - 1)) {
    Violated("XML accepted below its depth");
  }
  boost::shared_ptr<kxhost::XmlDocument> document;
  try {
    document = kxhost::ParseXml(text);
  } catch (const std::runtime_error&) {
    return;  // more than one root, text outside it, or beyond the limits
  }
  document->AddValue("fuzzed", value, true);
  document->SetAttribute("fuzzed", value);
  const std::string printed = document->ToString("reply");
  if (!WellFormed(printed)) {
    std::fprintf(stderr, "%s\n", printed.c_str());
    Violated("a parsed document prints as ill-formed XML");
  }
}

void CheckJson(const std::string& text) {
  pt::ptree tree;
  std::istringstream in(text);
  try {
    pt::read_json(in, tree);
  } catch (const pt::json_parser_error&) {
    return;
  }
  const std::size_t depth = TreeDepth(tree);
  if (depth > 0 && JsonAccepted(text, depth - 1)) {
    Violated("JSON accepted below its depth");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  if (size == 0) return 0;
  const std::uint8_t mode = data[0] & 3;
  Bytes rest(data + 1, size - 1);
  const std::string raw(reinterpret_cast<const char*>(data + 1), size - 1);
  // The value added before printing: the raw bytes' second half.
  const std::string value = raw.substr(raw.size() / 2);
  switch (mode) {
    case 0:
      CheckXml(raw, value);
      break;
    case 1:
      CheckJson(raw);
      break;
    case 2:
      CheckXml(GenerateXml(rest), value);
      break;
    default:
      CheckJson(GenerateJson(rest));
  }
  return 0;
}
