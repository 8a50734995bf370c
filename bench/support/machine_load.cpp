#include "support/machine_load.h"

#include <fstream>

namespace kxbench {

std::string LoadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string one, five, fifteen;
  if (!(in >> one >> five >> fifteen)) return "?";
  return one + " " + five + " " + fifteen;
}

}  // namespace kxbench
