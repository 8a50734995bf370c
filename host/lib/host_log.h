// The host's lines in the message-code convention that plug-ins use, for
// the parts of the host that act on a plug-in's behalf (policies, policy
// sources, confirmation): ident "kx_serv", facility 24 (daemon), and a
// format beginning "[%d] %s: " whose first two conversions take the message
// code (`id` << 24 | priority) and `name`. `file` is the base name of the
// logging source file and is part of the line.
#pragma once

#include "host/log.h"

namespace kxhost {

// What belongs to the host itself, not to a plug-in's policy set (the
// confirmation state machine, the policy sources record), logs under the
// host's own identifier and name.
constexpr int kHostLogId = 0x01;
constexpr const char* kHostLogName = "kxhost";

}  // namespace kxhost

#define KX_HOST_CODED_LOG(file, priority, id, name, format, ...) \
  log_message(file, __LINE__, priority, 24, "kx_serv", format,   \
              ((id) << 24) | (priority), name, ##__VA_ARGS__)
