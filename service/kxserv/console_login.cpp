#include "console_login.h"

#include <sys/random.h>

#include <cerrno>
#include <system_error>

namespace kxserv {

std::string ConsoleLogins::Issue(std::time_t now, int lifetime_seconds) {
  unsigned char bytes[32];
  std::size_t have = 0;
  while (have < sizeof bytes) {
    const ssize_t n = getrandom(bytes + have, sizeof bytes - have, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw std::system_error(errno, std::generic_category(), "getrandom");
    }
    have += static_cast<std::size_t>(n);
  }
  static const char kHex[] = "0123456789abcdef";
  std::string token;
  token.reserve(2 * sizeof bytes);
  for (unsigned char b : bytes) {
    token += kHex[b >> 4];
    token += kHex[b & 15];
  }
  ForgetExpired(now);
  while (expiry_.size() >= kMaxPending && !issued_.empty()) {
    expiry_.erase(issued_.begin()->second);
    issued_.erase(issued_.begin());
  }
  expiry_[token] = now + lifetime_seconds;
  issued_[next_++] = token;
  return token;
}

bool ConsoleLogins::Redeem(const std::string& token, std::time_t now) {
  const auto found = expiry_.find(token);
  if (found == expiry_.end()) return false;
  const bool valid = now < found->second;
  expiry_.erase(found);
  for (auto it = issued_.begin(); it != issued_.end(); ++it) {
    if (it->second == token) {
      issued_.erase(it);
      break;
    }
  }
  return valid;
}

void ConsoleLogins::ForgetExpired(std::time_t now) {
  for (auto it = issued_.begin(); it != issued_.end();) {
    const auto found = expiry_.find(it->second);
    if (found == expiry_.end() || found->second <= now) {
      if (found != expiry_.end()) expiry_.erase(found);
      it = issued_.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace kxserv
