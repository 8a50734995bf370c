// Telling well-formed UTF-8 from other bytes.
//
// JSON readers, Boost's among them, refuse a whole document for one byte
// that is not part of a well-formed UTF-8 sequence, while XML documents as
// the host parses them pass such bytes through. Whoever writes JSON from
// XML input uses these to keep what it writes readable, and the host's XML
// writer uses them so that no reply is ill-formed, whatever bytes a value
// holds. Pure functions: no state, no failure (beyond std::bad_alloc).
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

// Whether XML 1.0 can carry `text` as character data or an attribute value:
// well-formed UTF-8 without a C0 control other than tab, line feed and
// carriage return, and without U+FFFE or U+FFFF.
KX_HOST_API bool IsXmlText(const std::string& text);

// `text` with what IsXmlText refuses replaced by U+FFFD (EF BF BD): each byte
// that is not part of a well-formed UTF-8 sequence, each such control byte,
// each U+FFFE and U+FFFF. Text that IsXmlText accepts comes back unchanged.
KX_HOST_API std::string ToXmlText(const std::string& text);

// Whether `name` is usable as an XML element or attribute name as this host
// writes them: ASCII letters, digits, '_', '-', '.' and ':', not starting
// with a digit, '-' or '.'.
KX_HOST_API bool IsXmlName(const std::string& name);

// `name` with every byte IsXmlName does not take replaced by '_', and a '_'
// put in front of an empty name or a name with a wrong first character.
KX_HOST_API std::string ToXmlName(const std::string& name);

}  // namespace kxtext
