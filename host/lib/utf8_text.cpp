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

}  // namespace kxtext
