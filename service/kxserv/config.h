// The service's own configuration: /opt/korvex/etc/kxserv.conf, read at
// start and again on SIGHUP. One "key = value" a line; "#" starts a comment.
// A missing file means every default; an unknown key or a bad value is an
// error (at start the service refuses to run, on SIGHUP it keeps the old
// configuration), so a typo never silently loosens access.
#pragma once

#include <string>

#include "common/key_value_file.h"

namespace kxserv {

constexpr const char* kConfigPath = "/opt/korvex/etc/kxserv.conf";

struct Config {
  // Besides root, members of this group may talk to the service.
  std::string admin_group = "kxadmin";
  // Largest request frame accepted, in bytes.
  std::size_t max_request = 1u << 20;
  // A client that is mid-frame, or connected with nothing asked and not
  // subscribed, is dropped after this long without a byte.
  int read_timeout_ms = 10000;
  // A client that takes nothing of a pending reply or event for this long
  // is dropped.
  int write_timeout_ms = 10000;
  // Connections served at once; one more is told "busy" and closed.
  int max_clients = 256;
  // Where logged-in users are listed for notices.
  std::string utmp_file = "/var/run/utmp";
  // How long a one-time console login link (console-login) stays valid.
  int console_login_seconds = 300;
};

// Reads `path` over the defaults. Throws ConfigError naming the line.
Config ReadConfig(const std::string& path);

}  // namespace kxserv
