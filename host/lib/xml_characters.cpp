#include "xml_characters.h"

#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kxhost {
namespace {

namespace pt = boost::property_tree;

constexpr const char* kAttributes = "<xmlattr>";

// The first forbidden byte of `text`, or -1.
int ForbiddenCharacter(const std::string& text) {
  for (const unsigned char c : text) {
    if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') return c;
  }
  return -1;
}

[[noreturn]] void Refuse(int character, const std::string& where) {
  char code[8];
  std::snprintf(code, sizeof code, "%04X", static_cast<unsigned>(character));
  throw std::runtime_error(std::string("malformed XML: character U+") + code +
                           " in " + where);
}

void Check(const std::string& text, const std::string& where) {
  const int character = ForbiddenCharacter(text);
  if (character >= 0) Refuse(character, where);
}

}  // namespace

void RefuseControlCharacters(const std::string& root_name,
                             const pt::ptree& tree) {
  // (element name, its content); names are checked as they are met.
  std::vector<std::pair<const std::string*, const pt::ptree*>> pending = {
      {&root_name, &tree}};
  Check(root_name, "an element name");
  while (!pending.empty()) {
    const std::string& name = *pending.back().first;
    const pt::ptree& element = *pending.back().second;
    pending.pop_back();
    Check(element.data(), "the text of <" + name + ">");
    for (const auto& child : element) {
      if (child.first == kAttributes) {
        for (const auto& attribute : child.second) {
          Check(attribute.first, "an attribute name of <" + name + ">");
          Check(attribute.second.data(), "the attribute '" + attribute.first +
                                             "' of <" + name + ">");
        }
        continue;
      }
      Check(child.first, "an element name");
      pending.emplace_back(&child.first, &child.second);
    }
  }
}

}  // namespace kxhost
