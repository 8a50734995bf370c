// Writing a text as a JSON string, for the files and documents this system
// writes by hand rather than through Boost's JSON writer.
//
// Each writer keeps the exact bytes of its own format: the rule files are
// sealed by checksum, the sources record and the exported documents are read
// back and compared by other programs, and the console's replies end up
// inside HTML pages. A JsonStringStyle names how one format differs; every
// style escapes '"', '\\', line feed, carriage return and tab with their
// short forms and writes the other control bytes as "\u00XX". Pure
// function: no state, no failure (beyond std::bad_alloc).
#pragma once

#include <string>

#include "host/host_api.h"

namespace kxtext {

struct JsonStringStyle {
  // "\/" for '/', as Boost's JSON writer puts it.
  bool escape_slash = false;
  // "\u001F" rather than "\u001f".
  bool upper_case_hex = false;
  // "\b" and "\f" rather than "\u0008" and "\u000c".
  bool short_backspace_formfeed = true;
  // '<', '>' and '&' as "\u003c", "\u003e", "\u0026", so that the string
  // can stand inside an HTML page.
  bool escape_markup = false;
  // A byte from 0x80 up that is not part of a well-formed UTF-8 sequence as
  // "\u00XX" (JSON readers refuse the whole document for one such byte);
  // otherwise every byte from 0x80 up is written as it is.
  bool invalid_utf8_as_code_point = false;
};

// Appends `text` to `*out` between double quotes, escaped as `style` says.
KX_HOST_API void AppendJsonString(const std::string& text, std::string* out,
                                  const JsonStringStyle& style = {});

}  // namespace kxtext
