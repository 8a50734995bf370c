#include "key_value_file.h"

#include <cerrno>
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

}  // namespace

bool ForEachSetting(
    const std::string& path,
    const std::function<void(const std::string&, const std::string&,
                             const std::string&)>& setting) {
  std::ifstream in(path);
  if (!in) {
    if (errno == ENOENT) return false;
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
    setting(where, Trim(line.substr(0, equals)), Trim(line.substr(equals + 1)));
  }
  return true;
}

long long SettingNumber(const std::string& where, const std::string& value,
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

}  // namespace kxserv
