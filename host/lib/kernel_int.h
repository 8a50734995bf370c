// The integer form of a kernel policy's value text.
#pragma once

#include <string>

namespace kxhost {

// A whole decimal number (surrounding blanks allowed), else 0: the "off" of
// every kernel policy, rather than whatever prefix happened to parse. Used
// both to apply a value and to store it, so the two never disagree.
int KernelInt(const std::string& text);

}  // namespace kxhost
