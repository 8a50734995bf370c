// An owned file descriptor, closed when its owner goes, so that no early
// return or exception leaks one. Header only: nothing to export.
#pragma once

#include <unistd.h>

namespace kxfs {

class UniqueFd {
 public:
  UniqueFd() = default;
  // Takes `fd`; a negative value (a failed open) owns nothing.
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }

  int get() const { return fd_; }
  // Gives the descriptor up without closing it.
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  // Closes what it owns (a failing close is ignored: there is nothing left
  // to do with the descriptor) and takes `fd`.
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace kxfs
