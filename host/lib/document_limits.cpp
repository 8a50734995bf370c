#include "host/document_limits.h"

#include <boost/property_tree/json_parser.hpp>
#include <sstream>

namespace kxdoc {
namespace {

constexpr std::size_t kEnd = std::string_view::npos;

void CheckSize(std::string_view text, const DocumentLimits& limits) {
  if (text.size() > limits.max_bytes) {
    throw DocumentLimitError("the document is larger than " +
                             std::to_string(limits.max_bytes) + " bytes");
  }
}

[[noreturn]] void TooDeep(const DocumentLimits& limits) {
  throw DocumentLimitError("the document is nested deeper than " +
                           std::to_string(limits.max_depth) + " levels");
}

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// The characters the XML parser takes into an element name and into an
// attribute name. Kept to the parser's own sets: a scanner that ended a
// name earlier could read a quote inside a name as the start of a value and
// skip elements the parser builds.
bool IsElementNameChar(char c) {
  return !IsSpace(c) && c != '/' && c != '>' && c != '?' && c != '\0';
}
bool IsAttributeNameChar(char c) {
  return IsElementNameChar(c) && c != '<' && c != '=' && c != '!';
}

// Walks XML text as the parser does and keeps only the count of open
// elements. Where the parser would stop with an error the walk stops too:
// the parser never got deeper than the count at that point.
class XmlDepthScan {
 public:
  // The parser reads the text as a C string: a NUL byte ends the document
  // for it, wherever it stands.
  XmlDepthScan(std::string_view text, const DocumentLimits& limits)
      : text_(text.substr(0, text.find('\0'))), limits_(limits) {}

  void Run() {
    while (pos_ < text_.size()) {
      const std::size_t open = text_.find('<', pos_);
      if (open == kEnd) return;
      pos_ = open + 1;
      if (!Markup()) return;
    }
  }

 private:
  bool StartsWith(std::string_view prefix) const {
    return text_.substr(pos_, prefix.size()) == prefix;
  }
  char At(std::size_t i) const { return i < text_.size() ? text_[i] : '\0'; }
  bool SkipPast(std::string_view end) {
    const std::size_t found = text_.find(end, pos_);
    if (found == kEnd) return false;
    pos_ = found + end.size();
    return true;
  }
  void SkipSpace() {
    while (IsSpace(At(pos_))) ++pos_;
  }

  // After a '<'. False when the parser would stop here.
  bool Markup() {
    const char c = At(pos_);
    if (c == '?') return SkipPast("?>");
    if (c == '!') {
      if (StartsWith("!--")) return SkipPast("-->");
      if (StartsWith("![CDATA[")) return SkipPast("]]>");
      if (StartsWith("!DOCTYPE") && IsSpace(At(pos_ + 8))) return DocType();
      return SkipPast(">");
    }
    if (c == '/') {
      if (depth_ == 0) return false;
      --depth_;
      return SkipPast(">");
    }
    return StartTag();
  }

  // Brackets of the internal subset nest; '>' inside them does not end it.
  bool DocType() {
    std::size_t brackets = 0;
    for (; pos_ < text_.size(); ++pos_) {
      const char c = text_[pos_];
      if (c == '[') {
        ++brackets;
      } else if (c == ']' && brackets > 0) {
        --brackets;
      } else if (c == '>' && brackets == 0) {
        ++pos_;
        return true;
      }
    }
    return false;
  }

  bool StartTag() {
    const std::size_t name = pos_;
    while (IsElementNameChar(At(pos_))) ++pos_;
    if (pos_ == name) return false;
    SkipSpace();
    while (IsAttributeNameChar(At(pos_))) {
      while (IsAttributeNameChar(At(pos_))) ++pos_;
      SkipSpace();
      if (At(pos_) != '=') return false;
      ++pos_;
      SkipSpace();
      const char quote = At(pos_);
      if (quote != '"' && quote != '\'') return false;
      ++pos_;
      const std::size_t close = text_.find(quote, pos_);
      if (close == kEnd) return false;
      pos_ = close + 1;
      SkipSpace();
    }
    const bool empty = At(pos_) == '/' && At(pos_ + 1) == '>';
    if (!empty && At(pos_) != '>') return false;
    // An empty element is a level of the tree too, just never open.
    if (depth_ + 1 > limits_.max_depth) TooDeep(limits_);
    if (empty) {
      pos_ += 2;
    } else {
      ++pos_;
      ++depth_;
    }
    return true;
  }

  std::string_view text_;
  const DocumentLimits& limits_;
  std::size_t pos_ = 0;
  std::size_t depth_ = 0;
};

}  // namespace

void CheckXmlLimits(std::string_view text, const DocumentLimits& limits) {
  CheckSize(text, limits);
  XmlDepthScan(text, limits).Run();
}

void CheckJsonLimits(std::string_view text, const DocumentLimits& limits) {
  CheckSize(text, limits);
  std::size_t depth = 0;
  bool in_string = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (in_string) {
      if (c == '\\') {
        ++i;  // the escaped character, a quote among them
      } else if (c == '"') {
        in_string = false;
      }
    } else if (c == '"') {
      in_string = true;
    } else if (c == '{' || c == '[') {
      if (++depth > limits.max_depth) TooDeep(limits);
    } else if ((c == '}' || c == ']') && depth > 0) {
      --depth;
    }
  }
}

std::string ReadLimited(std::istream& in, std::size_t max_bytes) {
  std::string text;
  char buffer[65536];
  while (in) {
    in.read(buffer, sizeof buffer);
    const auto got = static_cast<std::size_t>(in.gcount());
    if (text.size() + got > max_bytes) {
      throw DocumentLimitError("the document is larger than " +
                               std::to_string(max_bytes) + " bytes");
    }
    text.append(buffer, got);
  }
  if (in.bad()) throw std::runtime_error("read error");
  return text;
}

boost::property_tree::ptree ParseJson(const std::string& text,
                                      const DocumentLimits& limits) {
  CheckJsonLimits(text, limits);
  boost::property_tree::ptree tree;
  std::istringstream in(text);
  boost::property_tree::read_json(in, tree);
  return tree;
}

}  // namespace kxdoc
