// Telling well-formed UTF-8 from other bytes.
//
// JSON readers, Boost's among them, refuse a whole document for one byte
// that is not part of a well-formed UTF-8 sequence, while XML documents as
// the host parses them pass such bytes through. Whoever writes JSON from
// XML input uses these to keep what it writes readable. Pure functions: no
// state, no failure.
#pragma once

#include <cstddef>
#include <string>

#include "host/host_api.h"

namespace kxtext {

// The length (2 to 4) of the well-formed multi-byte UTF-8 sequence that
// starts at text[i]: no overlong form, no surrogate, nothing past U+10FFFF.
// 0 when none starts there, an ASCII byte included. `i` < text.size().
KX_HOST_API std::size_t Utf8SequenceLength(const std::string& text,
                                           std::size_t i);

// Whether every byte of `text` is ASCII or part of a well-formed UTF-8
// sequence.
KX_HOST_API bool IsUtf8(const std::string& text);

}  // namespace kxtext
