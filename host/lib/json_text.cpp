#include "host/json_text.h"

#include "host/utf8_text.h"

namespace kxtext {

void AppendJsonString(const std::string& text, std::string* out,
                      const JsonStringStyle& style) {
  const char* const hex =
      style.upper_case_hex ? "0123456789ABCDEF" : "0123456789abcdef";
  const auto code_point = [&](unsigned char byte) {
    *out += "\\u00";
    *out += hex[byte >> 4];
    *out += hex[byte & 15];
  };
  *out += '"';
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const auto byte = static_cast<unsigned char>(c);
    const char* short_form = nullptr;
    switch (c) {
      case '"':
        short_form = "\\\"";
        break;
      case '\\':
        short_form = "\\\\";
        break;
      case '\n':
        short_form = "\\n";
        break;
      case '\r':
        short_form = "\\r";
        break;
      case '\t':
        short_form = "\\t";
        break;
      case '\b':
        if (style.short_backspace_formfeed) short_form = "\\b";
        break;
      case '\f':
        if (style.short_backspace_formfeed) short_form = "\\f";
        break;
      case '/':
        if (style.escape_slash) short_form = "\\/";
        break;
      case '<':
      case '>':
      case '&':
        if (style.escape_markup) {
          code_point(byte);
          continue;
        }
        break;
      default:
        break;
    }
    if (short_form != nullptr) {
      *out += short_form;
    } else if (byte < 0x20) {
      code_point(byte);
    } else if (byte < 0x80 || !style.invalid_utf8_as_code_point) {
      *out += c;
    } else if (const std::size_t length = Utf8SequenceLength(text, i)) {
      out->append(text, i, length);
      i += length - 1;
    } else {
      code_point(byte);
    }
  }
  *out += '"';
}

}  // namespace kxtext
