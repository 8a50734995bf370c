#include "content_digest.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <memory>

namespace aec::engine {

bool DigestOfFd(int fd, Digest *digest) {
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(),
                                                              EVP_MD_CTX_free);
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1)
    return false;
  unsigned char buffer[64 * 1024];
  off_t offset = 0;
  for (;;) {
    const ssize_t got = pread(fd, buffer, sizeof buffer, offset);
    if (got < 0)
      return false;
    if (got == 0)
      break;
    if (EVP_DigestUpdate(ctx.get(), buffer, static_cast<size_t>(got)) != 1)
      return false;
    offset += got;
  }
  unsigned int size = 0;
  return EVP_DigestFinal_ex(ctx.get(), digest->data(), &size) == 1 &&
         size == 32;
}

bool DigestOfFile(const std::string &path, Digest *digest) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0)
    return false;
  const bool ok = DigestOfFd(fd, digest);
  close(fd);
  return ok;
}

} // namespace aec::engine
