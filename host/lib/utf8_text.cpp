#include "host/utf8_text.h"

namespace kxtext {

std::size_t Utf8SequenceLength(const std::string& text, std::size_t i) {
  const auto byte = [&](std::size_t k) {
    return static_cast<unsigned char>(text[k]);
  };
  const unsigned char lead = byte(i);
  std::size_t length = 0;
  unsigned char low = 0x80, high = 0xbf;  // the second byte's range
  if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3;
    if (lead == 0xe0) low = 0xa0;   // no overlong forms
    if (lead == 0xed) high = 0x9f;  // no surrogates
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4;
    if (lead == 0xf0) low = 0x90;
    if (lead == 0xf4) high = 0x8f;  // nothing past U+10FFFF
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  if (byte(i + 1) < low || byte(i + 1) > high) return 0;
  for (std::size_t k = i + 2; k < i + length; ++k) {
    if (byte(k) < 0x80 || byte(k) > 0xbf) return 0;
  }
  return length;
}

bool IsUtf8(const std::string& text) {
  for (std::size_t i = 0; i < text.size();) {
    if (static_cast<unsigned char>(text[i]) < 0x80) {
      ++i;
    } else if (const std::size_t length = Utf8SequenceLength(text, i)) {
      i += length;
    } else {
      return false;
    }
  }
  return true;
}

namespace {

constexpr const char* kReplacement = "\xEF\xBF\xBD";  // U+FFFD

bool IsControlXmlRefuses(unsigned char byte) {
  return byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r';
}

// U+FFFE and U+FFFF: well-formed UTF-8, yet not XML characters.
bool IsNonCharacter(const std::string& text, std::size_t i) {
  return static_cast<unsigned char>(text[i]) == 0xef &&
         static_cast<unsigned char>(text[i + 1]) == 0xbf &&
         static_cast<unsigned char>(text[i + 2]) >= 0xbe;
}

bool IsNameByte(char c, bool first) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
      c == ':') {
    return true;
  }
  return !first && ((c >= '0' && c <= '9') || c == '-' || c == '.');
}

}  // namespace

bool IsXmlText(const std::string& text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x80) {
      if (IsControlXmlRefuses(byte)) return false;
      ++i;
    } else if (const std::size_t length = Utf8SequenceLength(text, i)) {
      if (length == 3 && IsNonCharacter(text, i)) return false;
      i += length;
    } else {
      return false;
    }
  }
  return true;
}

std::string ToXmlText(const std::string& text) {
  if (IsXmlText(text)) return text;
  std::string out;
  out.reserve(text.size() + 8);
  for (std::size_t i = 0; i < text.size();) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x80) {
      if (IsControlXmlRefuses(byte)) {
        out += kReplacement;
      } else {
        out += text[i];
      }
      ++i;
    } else if (const std::size_t length = Utf8SequenceLength(text, i)) {
      if (length == 3 && IsNonCharacter(text, i)) {
        out += kReplacement;
      } else {
        out.append(text, i, length);
      }
      i += length;
    } else {
      out += kReplacement;
      ++i;
    }
  }
  return out;
}

bool IsXmlName(const std::string& name) {
  if (name.empty()) return false;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (!IsNameByte(name[i], i == 0)) return false;
  }
  return true;
}

std::string ToXmlName(const std::string& name) {
  if (IsXmlName(name)) return name;
  std::string out;
  if (name.empty() || !IsNameByte(name[0], true)) out += '_';
  for (const char c : name) out += IsNameByte(c, false) ? c : '_';
  return out;
}

}  // namespace kxtext
