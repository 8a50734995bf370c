// Escaping for text files that hold one record a line with tab-separated
// fields (the host's events file, the loaded rule set, the checksum list).
//
// A field may hold any byte; the characters that would end the line or the
// field are written as a backslash and a letter: backslash as \\, tab as \t,
// line break as \n, carriage return as \r. A file format that escapes fewer
// of them names its own set (a subset of kLineSpecials). Pure functions: no
// state, no failure.
#pragma once

#include <string>

#include "host/host_api.h"

namespace kxtext {

// Every character that line escaping knows, backslash first.
constexpr const char* kLineSpecials = "\\\t\n\r";

// `text` with each character of `specials` escaped; other bytes as they are.
KX_HOST_API std::string EscapeLine(const std::string& text,
                                   const char* specials = kLineSpecials);

// The inverse of EscapeLine with the same `specials`: stores the text in
// `*out` and returns true, or returns false (with `*out` unspecified) when
// a backslash ends the text or is followed by a letter outside `specials`.
KX_HOST_API bool UnescapeLine(const std::string& text, std::string* out,
                              const char* specials = kLineSpecials);

}  // namespace kxtext
