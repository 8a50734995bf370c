#include "shown_object.h"

namespace aectool {
namespace {

bool IsContinuationByte(unsigned char c) { return (c & 0xc0) == 0x80; }

}  // namespace

bool IsControlCharacter(unsigned char c) { return c < 0x20 || c == 0x7f; }

std::string ShownObject(const std::string& value) {
  static const char kHex[] = "0123456789abcdef";
  std::string shown;
  for (const unsigned char c : value) {
    if (IsControlCharacter(c)) {
      shown += "\\x";
      shown += kHex[c >> 4];
      shown += kHex[c & 15];
    } else {
      shown += static_cast<char>(c);
    }
  }
  if (shown.size() <= kShownObjectMax) return shown;
  std::size_t cut = kShownObjectMax;
  while (cut > 0 &&
         IsContinuationByte(static_cast<unsigned char>(shown[cut]))) {
    --cut;
  }
  return shown.substr(0, cut) + "... (" + std::to_string(value.size()) +
         " bytes)";
}

}  // namespace aectool
