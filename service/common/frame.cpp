#include "frame.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kxserv {
namespace {

std::string Errno(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

// Reads exactly `size` bytes; false when the peer closed before the first.
bool ReadExactly(int fd, char* data, std::size_t size, int timeout_ms,
                 bool* partial) {
  std::size_t got = 0;
  while (got < size) {
    if (timeout_ms >= 0) {
      pollfd p{fd, POLLIN, 0};
      const int ready = poll(&p, 1, timeout_ms);
      if (ready < 0 && errno == EINTR) continue;
      if (ready < 0) throw SocketError(Errno("poll"));
      if (ready == 0) throw SocketError("no reply within the time limit");
    }
    const ssize_t n = read(fd, data + got, size - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw SocketError(Errno("read"));
    if (n == 0) {
      *partial = got > 0;
      return false;
    }
    got += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

std::string FrameHeader(std::uint32_t size) {
  std::string header(kFrameHeader, '\0');
  header[0] = static_cast<char>((size >> 24) & 0xff);
  header[1] = static_cast<char>((size >> 16) & 0xff);
  header[2] = static_cast<char>((size >> 8) & 0xff);
  header[3] = static_cast<char>(size & 0xff);
  return header;
}

std::string Frame(const std::string& payload) {
  return FrameHeader(static_cast<std::uint32_t>(payload.size())) + payload;
}

std::uint32_t FrameLength(const char* header) {
  const auto* b = reinterpret_cast<const unsigned char*>(header);
  return (std::uint32_t{b[0]} << 24) | (std::uint32_t{b[1]} << 16) |
         (std::uint32_t{b[2]} << 8) | std::uint32_t{b[3]};
}

std::string SocketPath(const std::string& root) {
  return root + "/var/run/kxserv.sock";
}

int ConnectTo(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw SocketError("socket path too long: " + path);
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw SocketError(Errno("socket"));
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    const std::string reason = Errno("cannot connect to " + path);
    close(fd);
    throw SocketError(reason);
  }
  return fd;
}

void SendFrame(int fd, const std::string& payload) {
  const std::string frame = Frame(payload);
  std::size_t sent = 0;
  while (sent < frame.size()) {
    const ssize_t n =
        send(fd, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw SocketError(Errno("send"));
    sent += static_cast<std::size_t>(n);
  }
}

std::string ReadFrame(int fd, int timeout_ms, std::size_t limit) {
  char header[kFrameHeader];
  bool partial = false;
  if (!ReadExactly(fd, header, sizeof header, timeout_ms, &partial)) {
    throw SocketError(partial ? "the service closed the connection inside "
                                "a frame"
                              : "the service closed the connection");
  }
  const std::uint32_t size = FrameLength(header);
  if (size > limit) {
    throw SocketError("frame of " + std::to_string(size) +
                      " bytes is above the limit");
  }
  std::string payload(size, '\0');
  if (size > 0 && !ReadExactly(fd, &payload[0], size, timeout_ms, &partial)) {
    throw SocketError("the service closed the connection inside a frame");
  }
  return payload;
}

}  // namespace kxserv
