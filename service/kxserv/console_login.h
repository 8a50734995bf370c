// One-time login links for the web console. `kxctl console-login` asks the
// service for a token (only root and the admin group can reach the service,
// so only they get one); the console redeems it, once, when the link is
// opened, and opens a session. No password exists anywhere.
//
// Not thread-safe: the service calls it from its worker thread only.
#pragma once

#include <cstddef>
#include <ctime>
#include <map>
#include <string>

namespace kxserv {

class ConsoleLogins {
 public:
  // Tokens not yet redeemed are kept up to this many; issuing one more
  // forgets the oldest, so a client asking in a loop cannot grow the
  // service.
  static constexpr std::size_t kMaxPending = 64;

  // A new token (64 hex digits from the kernel's random source), valid
  // until `now + lifetime_seconds`. Throws std::system_error when no
  // randomness can be had.
  std::string Issue(std::time_t now, int lifetime_seconds);

  // True once for a token issued and not expired at `now`; the token is
  // gone afterwards, whatever the answer.
  bool Redeem(const std::string& token, std::time_t now);

  std::size_t pending() const { return expiry_.size(); }

 private:
  void ForgetExpired(std::time_t now);

  // token -> expiry. Issue order is kept by `issued_` for kMaxPending.
  std::map<std::string, std::time_t> expiry_;
  std::map<unsigned long long, std::string> issued_;
  unsigned long long next_ = 0;
};

}  // namespace kxserv
