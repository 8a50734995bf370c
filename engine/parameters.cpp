#include "parameters.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace aec::engine {

const char kEnvironmentParameter[] = "korvex/secure/environment";
const char kVerboseParameter[] = "korvex/secure/secenv_verbose";
const char kInstalledSysctlRoot[] = "/opt/korvex/var/run/sysctl";

std::string DefaultSysctlRoot() {
  struct stat st;
  if (stat("/proc/sys/korvex", &st) == 0)
    return "/proc/sys";
  return kInstalledSysctlRoot;
}

bool ParseParameter(const std::string &text, int max, int *value) {
  size_t end = text.size();
  while (end > 0 && (text[end - 1] == '\n' || text[end - 1] == ' ' ||
                     text[end - 1] == '\t' || text[end - 1] == '\r')) {
    --end;
  }
  if (end == 0 || end > 9)
    return false;
  int parsed = 0;
  for (size_t i = 0; i < end; ++i) {
    if (text[i] < '0' || text[i] > '9')
      return false;
    parsed = parsed * 10 + (text[i] - '0');
  }
  if (parsed > max)
    return false;
  *value = parsed;
  return true;
}

bool ReadParameter(const std::string &path, int max, int *value,
                   std::string *why) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *why = path + ": " + std::strerror(errno);
    return false;
  }
  char buffer[64];
  const ssize_t got = read(fd, buffer, sizeof buffer);
  close(fd);
  if (got < 0) {
    *why = path + ": " + std::strerror(errno);
    return false;
  }
  const std::string text(buffer, static_cast<size_t>(got));
  if (!ParseParameter(text, max, value)) {
    *why = path + ": not a value from 0 to " + std::to_string(max);
    return false;
  }
  return true;
}

} // namespace aec::engine
