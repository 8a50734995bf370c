// Console sessions, held in memory only: a restart of kxconsole logs every
// administrator out, which is the safe direction. Thread-safe.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace kxconsole {

// 32 random bytes from the kernel as 64 hex digits. Throws
// std::runtime_error when no randomness can be had.
std::string RandomHex();

class Sessions {
 public:
  explicit Sessions(std::int64_t idle_seconds) : idle_(idle_seconds) {}

  struct Session {
    std::string csrf;
    std::int64_t last_used = 0;
  };

  // A new session; returns its id.
  std::string Open(std::int64_t now);
  // The live session `id` (its idle time restarted) or false; a session idle
  // for longer than the limit is forgotten.
  bool Touch(const std::string& id, std::int64_t now, Session* out);
  void Close(const std::string& id);
  std::int64_t idle_seconds() const { return idle_; }

 private:
  std::int64_t idle_;
  std::mutex mutex_;
  std::map<std::string, Session> sessions_;
};

}  // namespace kxconsole
