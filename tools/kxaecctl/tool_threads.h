// How far the tool spreads its work over the processors.
#pragma once

#include <cstddef>

namespace aectool {

// At most this many threads work at once: the tool's work is short, and
// more threads than processors only add switching.
constexpr std::size_t kToolThreads = 4;

}  // namespace aectool
