#include "ready.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

namespace kxserv {

bool NotifyReady() {
  const char* path = std::getenv("NOTIFY_SOCKET");
  if (path == nullptr || path[0] == '\0') return true;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::size_t length = std::strlen(path);
  if (length >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path, length);
  // "@name" is an abstract socket: a leading NUL byte instead of the "@".
  if (path[0] == '@') address.sun_path[0] = '\0';
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const std::string message = "READY=1\nSTATUS=serving\n";
  const socklen_t size =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
  const bool sent = sendto(fd, message.data(), message.size(), MSG_NOSIGNAL,
                           reinterpret_cast<sockaddr*>(&address),
                           size) == static_cast<ssize_t>(message.size());
  close(fd);
  return sent;
}

}  // namespace kxserv
