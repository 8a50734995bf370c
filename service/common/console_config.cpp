#include "common/console_config.h"

namespace kxserv {

ConsoleConfig ReadConsoleConfig(const std::string& path) {
  ConsoleConfig config;
  ForEachSetting(path, [&config](const std::string& where,
                                 const std::string& key,
                                 const std::string& value) {
    if (key == "listen_address") {
      if (value.empty()) throw ConfigError(where + ": empty address");
      config.listen_address = value;
    } else if (key == "port") {
      config.port = static_cast<int>(SettingNumber(where, value, 0, 65535));
    } else if (key == "certificate") {
      config.certificate = value;
    } else if (key == "private_key") {
      config.private_key = value;
    } else if (key == "session_minutes") {
      config.session_minutes =
          static_cast<int>(SettingNumber(where, value, 1, 7 * 24 * 60));
    } else if (key == "max_body") {
      config.max_body =
          static_cast<std::size_t>(SettingNumber(where, value, 1024, 16 << 20));
    } else {
      throw ConfigError(where + ": unknown key '" + key + "'");
    }
  });
  // Half a TLS setting would quietly serve plain HTTP where the
  // administrator meant to protect the session cookie.
  if (config.certificate.empty() != config.private_key.empty()) {
    throw ConfigError(path +
                      ": certificate and private_key must be set together");
  }
  return config;
}

std::string ConsoleConfigPath(const std::string& root) {
  return root + "/etc/kxconsole.conf";
}

std::string ConsoleLoginUrl(const ConsoleConfig& config,
                            const std::string& token) {
  std::string host = config.listen_address;
  if (host == "0.0.0.0") host = "127.0.0.1";
  if (host == "::") host = "::1";
  if (host.find(':') != std::string::npos) host = "[" + host + "]";
  return std::string(config.tls() ? "https" : "http") + "://" + host + ":" +
         std::to_string(config.port) + "/login?token=" + token;
}

}  // namespace kxserv
