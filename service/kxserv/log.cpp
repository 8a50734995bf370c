#include "log.h"

#include "host/log.h"

namespace kxserv {

void Log(int priority, const std::string& text) {
  log_message("kxserv", 0, priority, LOG_DAEMON, "kx_serv", "%s", text.c_str());
}

}  // namespace kxserv
