// The machine's load, printed beside every figure: on a shared machine a
// wall-clock figure means little without it.
#pragma once

#include <string>

namespace kxbench {

// The first three fields of /proc/loadavg ("1.00 0.80 0.50"), or "?".
std::string LoadAverage();

}  // namespace kxbench
