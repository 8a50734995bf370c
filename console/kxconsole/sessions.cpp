#include "sessions.h"

#include <sys/random.h>

#include <stdexcept>

namespace kxconsole {

std::string RandomHex() {
  unsigned char bytes[32];
  std::size_t got = 0;
  while (got < sizeof bytes) {
    const ssize_t n = getrandom(bytes + got, sizeof bytes - got, 0);
    if (n <= 0) throw std::runtime_error("no randomness for a session id");
    got += static_cast<std::size_t>(n);
  }
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (const unsigned char b : bytes) {
    out += kDigits[b >> 4];
    out += kDigits[b & 15];
  }
  return out;
}

std::string Sessions::Open(std::int64_t now) {
  const std::string id = RandomHex();
  std::lock_guard<std::mutex> lock(mutex_);
  // Forget expired sessions here so the map cannot grow without bound.
  for (auto it = sessions_.begin(); it != sessions_.end();) {
    it = now - it->second.last_used > idle_ ? sessions_.erase(it) : ++it;
  }
  sessions_[id] = Session{RandomHex(), now};
  return id;
}

bool Sessions::Touch(const std::string& id, std::int64_t now, Session* out) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = sessions_.find(id);
  if (it == sessions_.end()) return false;
  if (now - it->second.last_used > idle_) {
    sessions_.erase(it);
    return false;
  }
  it->second.last_used = now;
  *out = it->second;
  return true;
}

void Sessions::Close(const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  sessions_.erase(id);
}

}  // namespace kxconsole
