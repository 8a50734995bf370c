// Framing of the management socket: every message is a 4-byte unsigned
// length in network byte order followed by that many bytes of UTF-8 text (an
// XML document). The length comes first so that nothing inside a document
// can end or split a message.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace kxserv {

constexpr std::size_t kFrameHeader = 4;
// The largest reply a client accepts; replies to `get` or `log` on a big
// rule set or journal are far larger than any request.
constexpr std::size_t kMaxReply = 256u << 20;

// The header for a payload of `size` bytes.
std::string FrameHeader(std::uint32_t size);
// header + payload.
std::string Frame(const std::string& payload);
// The length a header holds; `header` points at kFrameHeader bytes.
std::uint32_t FrameLength(const char* header);

// The socket path of a service whose install root is `root`.
std::string SocketPath(const std::string& root);

// A socket failure on the client side; what() is a one-line reason.
class SocketError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Blocking client helpers. ConnectTo returns a connected stream socket
// (close it with close()). SendFrame writes one whole frame; ReadFrame reads
// one whole frame, waiting at most `timeout_ms` (-1: no limit) for each
// chunk. Both throw SocketError, ReadFrame also for a frame above `limit` or
// a connection that ends inside a frame.
int ConnectTo(const std::string& path);
void SendFrame(int fd, const std::string& payload);
std::string ReadFrame(int fd, int timeout_ms = -1,
                      std::size_t limit = kMaxReply);

}  // namespace kxserv
