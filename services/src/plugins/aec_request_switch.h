// The one reading of a request's switches (attributes and parameters such as
// "recursive", "whitelist" or "users"): a switch is on only when its text is
// exactly "1". Absent, empty, "true", "01" or " 1" are all off, so a client
// never switches something on by accident.
#pragma once

#include <cstring>
#include <memory>

namespace aec {

// `text` as the host hands it over; null when the request does not have it.
inline bool IsSwitchOn(const char* text) {
  return text != nullptr && std::strcmp(text, "1") == 0;
}

// The same for a text the caller owns (the host's copies are new[] arrays).
inline bool IsSwitchOn(const std::unique_ptr<char[]>& text) {
  return IsSwitchOn(text.get());
}

}  // namespace aec
