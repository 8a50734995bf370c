#include "kxaide/sha256_file.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "host/unique_fd.h"
#include "kxaide/aide_error.h"

namespace kxaide {
namespace {

struct ContextDeleter {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

[[noreturn]] void CannotRead(const std::string& path, int error) {
  throw AideError(kExitIo, "cannot read " + path + ": " + std::strerror(error));
}

}  // namespace

std::string Sha256File(const std::string& path) {
  // O_NONBLOCK: a FIFO swapped in for a listed file after it was looked at
  // must not hang the run; it is refused below as not a regular file.
  const kxfs::UniqueFd file(
      ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (file.get() < 0) CannotRead(path, errno);
  struct stat info;
  if (::fstat(file.get(), &info) != 0) CannotRead(path, errno);
  if (!S_ISREG(info.st_mode)) {
    throw AideError(kExitIo, "cannot read " + path + ": not a regular file");
  }

  std::unique_ptr<EVP_MD_CTX, ContextDeleter> context(EVP_MD_CTX_new());
  if (!context ||
      EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
    throw AideError(kExitIo, "cannot start a SHA-256 digest");
  }
  std::vector<unsigned char> buffer(64 * 1024);
  for (;;) {
    const ssize_t got = ::read(file.get(), buffer.data(), buffer.size());
    if (got < 0) {
      if (errno == EINTR) continue;
      CannotRead(path, errno);
    }
    if (got == 0) break;
    if (EVP_DigestUpdate(context.get(), buffer.data(),
                         static_cast<std::size_t>(got)) != 1) {
      throw AideError(kExitIo, "SHA-256 digest failed for " + path);
    }
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(context.get(), digest, &length) != 1) {
    throw AideError(kExitIo, "SHA-256 digest failed for " + path);
  }
  static const char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(length * 2);
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 0xf];
  }
  return hex;
}

}  // namespace kxaide
