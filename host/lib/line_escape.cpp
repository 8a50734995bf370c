#include "host/line_escape.h"

#include <cstring>

namespace kxtext {
namespace {

// The letter that follows the backslash for an escaped character.
char LetterOf(char c) {
  switch (c) {
    case '\t':
      return 't';
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    default:
      return c;  // the backslash stands for itself
  }
}

bool IsSpecial(char c, const char* specials) {
  return c != '\0' && std::strchr(specials, c) != nullptr;
}

}  // namespace

std::string EscapeLine(const std::string& text, const char* specials) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (IsSpecial(c, specials)) {
      out += '\\';
      out += LetterOf(c);
    } else {
      out += c;
    }
  }
  return out;
}

bool UnescapeLine(const std::string& text, std::string* out,
                  const char* specials) {
  out->clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      *out += text[i];
      continue;
    }
    if (++i == text.size()) return false;
    bool known = false;
    for (const char* special = specials; *special != '\0'; ++special) {
      if (LetterOf(*special) == text[i]) {
        *out += *special;
        known = true;
        break;
      }
    }
    if (!known) return false;
  }
  return true;
}

}  // namespace kxtext
