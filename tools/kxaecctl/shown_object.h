// How kxaecctl shows a value on one output line.
//
// The plug-in reads the tool's standard output in lines of at most 4095
// bytes and treats a longer line as a length error that leaves the request
// without a reply, although the change it reports may have been made. The
// offending objects the tool prints are values that a client chose (user
// names, resource paths) and may be of any length, so the tool never prints
// one whole when it would not fit: what it prints stays well within that
// line length and on one line.
#pragma once

#include <cstddef>
#include <string>

namespace aectool {

// The longest object printed whole, in bytes (a path of PATH_MAX fits the
// driver's line, but a reply made of a dozen such is of no use to a person).
constexpr std::size_t kShownObjectMax = 1024;

// A byte below 0x20, or 0x7f: never part of a value the tool takes.
bool IsControlCharacter(unsigned char c);

// `value` with every control character (below 0x20, and 0x7f) written as
// \xNN and, when the result is longer than kShownObjectMax, cut at a UTF-8
// character boundary and followed by "... (<n> bytes)", n being the length
// of `value`. Never longer than kShownObjectMax + 32 bytes.
std::string ShownObject(const std::string& value);

}  // namespace aectool
