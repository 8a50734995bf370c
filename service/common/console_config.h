// The web console's configuration: /opt/korvex/etc/kxconsole.conf (format of
// key_value_file.h). kxconsole reads it to listen; kxctl reads it to print a
// login link that points at where the console listens. A missing file means
// every default; an unknown key or a bad value is a ConfigError, so a typo
// never silently opens the console to the network.
#pragma once

#include <cstddef>
#include <string>

#include "common/key_value_file.h"

namespace kxserv {

constexpr const char* kConsoleConfigPath = "/opt/korvex/etc/kxconsole.conf";

struct ConsoleConfig {
  // Loopback by default: the console is for an administrator on the host
  // (or through an SSH tunnel), not for the network.
  std::string listen_address = "127.0.0.1";
  int port = 8470;
  // TLS when both are set (PEM files); plain HTTP otherwise.
  std::string certificate;
  std::string private_key;
  // A session ends after this long without a request.
  int session_minutes = 30;
  // Largest request body accepted, in bytes.
  std::size_t max_body = 65536;

  bool tls() const { return !certificate.empty() && !private_key.empty(); }
};

// Reads `path` over the defaults. Throws ConfigError naming the line; also
// when only one of certificate and private_key is set.
ConsoleConfig ReadConsoleConfig(const std::string& path);

// The configuration file of an installation whose root is `root`.
std::string ConsoleConfigPath(const std::string& root);

// "http[s]://ADDRESS:PORT/login?token=TOKEN". An IPv6 address is put in
// brackets; a wildcard address (0.0.0.0, ::) becomes the loopback address,
// which is where the person running kxctl can open it.
std::string ConsoleLoginUrl(const ConsoleConfig& config,
                            const std::string& token);

}  // namespace kxserv
