#include "config.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>

namespace kxserv {
namespace {

std::string Trim(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return std::string();
  const auto last = text.find_last_not_of(" \t\r");
  return text.substr(first, last - first + 1);
}

long long Number(const std::string& where, const std::string& value,
                 long long low, long long high) {
  errno = 0;
  char* end = nullptr;
  const long long number = std::strtoll(value.c_str(), &end, 10);
  if (value.empty() || *end != '\0' || errno != 0 || number < low ||
      number > high) {
    throw ConfigError(where + ": expected a whole number from " +
                      std::to_string(low) + " to " + std::to_string(high));
  }
  return number;
}

}  // namespace

Config ReadConfig(const std::string& path) {
  Config config;
  std::ifstream in(path);
  if (!in) {
    if (errno == ENOENT) return config;
    throw ConfigError("cannot read " + path);
  }
  std::string line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    const auto hash = line.find('#');
    if (hash != std::string::npos) line.erase(hash);
    line = Trim(line);
    if (line.empty()) continue;
    const std::string where = path + ":" + std::to_string(number);
    const auto equals = line.find('=');
    if (equals == std::string::npos) {
      throw ConfigError(where + ": expected key = value");
    }
    const std::string key = Trim(line.substr(0, equals));
    const std::string value = Trim(line.substr(equals + 1));
    if (key == "admin_group") {
      if (value.empty()) throw ConfigError(where + ": empty group name");
      config.admin_group = value;
    } else if (key == "max_request") {
      config.max_request =
          static_cast<std::size_t>(Number(where, value, 64, 64ll << 20));
    } else if (key == "read_timeout_ms") {
      config.read_timeout_ms =
          static_cast<int>(Number(where, value, 10, INT_MAX));
    } else if (key == "write_timeout_ms") {
      config.write_timeout_ms =
          static_cast<int>(Number(where, value, 10, INT_MAX));
    } else if (key == "max_clients") {
      config.max_clients = static_cast<int>(Number(where, value, 1, 65536));
    } else if (key == "utmp_file") {
      config.utmp_file = value;
    } else {
      throw ConfigError(where + ": unknown key '" + key + "'");
    }
  }
  return config;
}

}  // namespace kxserv
