#include "config.h"

#include <climits>

#include "common/key_value_file.h"

namespace kxserv {

Config ReadConfig(const std::string& path) {
  Config config;
  ForEachSetting(path, [&config](const std::string& where,
                                 const std::string& key,
                                 const std::string& value) {
    if (key == "admin_group") {
      if (value.empty()) throw ConfigError(where + ": empty group name");
      config.admin_group = value;
    } else if (key == "max_request") {
      config.max_request =
          static_cast<std::size_t>(SettingNumber(where, value, 64, 64ll << 20));
    } else if (key == "read_timeout_ms") {
      config.read_timeout_ms =
          static_cast<int>(SettingNumber(where, value, 10, INT_MAX));
    } else if (key == "write_timeout_ms") {
      config.write_timeout_ms =
          static_cast<int>(SettingNumber(where, value, 10, INT_MAX));
    } else if (key == "max_clients") {
      config.max_clients =
          static_cast<int>(SettingNumber(where, value, 1, 65536));
    } else if (key == "utmp_file") {
      config.utmp_file = value;
    } else if (key == "console_login_seconds") {
      config.console_login_seconds =
          static_cast<int>(SettingNumber(where, value, 10, 86400));
    } else {
      throw ConfigError(where + ": unknown key '" + key + "'");
    }
  });
  return config;
}

}  // namespace kxserv
