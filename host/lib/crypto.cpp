// The directory password is kept enciphered in the settings database, under
// a key that only the host can read, so that a copy of the database alone
// does not give the password away.
#include "host/crypto.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr const char* kPrefix = "kx1:";
constexpr const char* kKeyDirParent = "/opt/korvex/etc";
constexpr const char* kKeyDir = "/opt/korvex/etc/kxhost";
constexpr const char* kKeyFile = "/opt/korvex/etc/kxhost/host.key";
constexpr std::size_t kKeySize = 32;
constexpr std::size_t kNonceSize = 12;
constexpr std::size_t kTagSize = 16;

using Bytes = std::vector<unsigned char>;

struct CipherContextDeleter {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, CipherContextDeleter>;

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error("host key: " + what);
}

// Wipes the key from memory when it is no longer needed.
struct Key {
  Bytes bytes;
  ~Key() {
    if (!bytes.empty()) OPENSSL_cleanse(bytes.data(), bytes.size());
  }
};

bool ReadKey(Key* key) {
  const int fd = open(kKeyFile, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return false;
    Fail(std::string("cannot open ") + kKeyFile + ": " + std::strerror(errno));
  }
  struct stat info;
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    close(fd);
    Fail(std::string(kKeyFile) + " is not a regular file");
  }
  // A key that others may read protects nothing.
  if ((info.st_mode & 077) != 0) {
    close(fd);
    Fail(std::string(kKeyFile) + " is readable by group or others");
  }
  key->bytes.assign(kKeySize + 1, 0);
  const ssize_t got = read(fd, key->bytes.data(), key->bytes.size());
  close(fd);
  if (got != static_cast<ssize_t>(kKeySize)) {
    Fail(std::string(kKeyFile) + " does not hold a 32-byte key");
  }
  key->bytes.resize(kKeySize);
  return true;
}

void CreateKey(Key* key) {
  if (mkdir(kKeyDirParent, 0755) != 0 && errno != EEXIST) {
    Fail(std::string("cannot make ") + kKeyDirParent + ": " + std::strerror(errno));
  }
  if (mkdir(kKeyDir, 0700) != 0 && errno != EEXIST) {
    Fail(std::string("cannot make ") + kKeyDir + ": " + std::strerror(errno));
  }
  key->bytes.assign(kKeySize, 0);
  if (RAND_bytes(key->bytes.data(), static_cast<int>(kKeySize)) != 1) {
    Fail("no random bytes for a new key");
  }
  const int fd =
      open(kKeyFile, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) {
    // Another process made it in between: use that one.
    if (errno == EEXIST && ReadKey(key)) return;
    Fail(std::string("cannot create ") + kKeyFile + ": " + std::strerror(errno));
  }
  const bool written =
      write(fd, key->bytes.data(), kKeySize) == static_cast<ssize_t>(kKeySize) &&
      fsync(fd) == 0;
  close(fd);
  if (!written) {
    unlink(kKeyFile);
    Fail(std::string("cannot write ") + kKeyFile);
  }
}

std::string Base64(const Bytes& bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]),
                                     bytes.data(), static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

bool Unbase64(const std::string& text, Bytes* bytes) {
  if (text.empty() || text.size() % 4 != 0) return false;
  bytes->assign(text.size() / 4 * 3, 0);
  const int length =
      EVP_DecodeBlock(bytes->data(), reinterpret_cast<const unsigned char*>(text.data()),
                      static_cast<int>(text.size()));
  if (length < 0) return false;
  // EVP_DecodeBlock counts the padding as zero bytes.
  std::size_t padding = 0;
  if (text[text.size() - 1] == '=') ++padding;
  if (text[text.size() - 2] == '=') ++padding;
  bytes->resize(static_cast<std::size_t>(length) - padding);
  return true;
}

CipherContext NewContext() {
  CipherContext context(EVP_CIPHER_CTX_new());
  if (!context) throw std::runtime_error("crypto: no cipher context");
  return context;
}

}  // namespace

std::string encrypt_password(const std::string& plain) {
  Key key;
  if (!ReadKey(&key)) CreateKey(&key);
  Bytes nonce(kNonceSize);
  if (RAND_bytes(nonce.data(), static_cast<int>(nonce.size())) != 1) {
    throw std::runtime_error("crypto: no random bytes for a nonce");
  }
  CipherContext context = NewContext();
  Bytes sealed(nonce);
  sealed.resize(kNonceSize + plain.size() + kTagSize);
  int length = 0;
  int final_length = 0;
  if (EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr,
                         key.bytes.data(), nonce.data()) != 1 ||
      EVP_EncryptUpdate(context.get(), sealed.data() + kNonceSize, &length,
                        reinterpret_cast<const unsigned char*>(plain.data()),
                        static_cast<int>(plain.size())) != 1 ||
      EVP_EncryptFinal_ex(context.get(), sealed.data() + kNonceSize + length,
                          &final_length) != 1 ||
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG,
                          static_cast<int>(kTagSize),
                          sealed.data() + kNonceSize + plain.size()) != 1) {
    throw std::runtime_error("crypto: cannot encipher");
  }
  return kPrefix + Base64(sealed);
}

std::string decrypt_password(const std::string& stored) {
  const std::size_t prefix_size = std::strlen(kPrefix);
  if (stored.compare(0, prefix_size, kPrefix) != 0) return stored;
  Bytes sealed;
  if (!Unbase64(stored.substr(prefix_size), &sealed) ||
      sealed.size() < kNonceSize + kTagSize) {
    throw std::runtime_error("crypto: the stored password is damaged");
  }
  Key key;
  if (!ReadKey(&key)) Fail(std::string("no key file ") + kKeyFile);
  const std::size_t text_size = sealed.size() - kNonceSize - kTagSize;
  std::string plain(text_size, '\0');
  CipherContext context = NewContext();
  int length = 0;
  int final_length = 0;
  const bool ok =
      EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr,
                         key.bytes.data(), sealed.data()) == 1 &&
      EVP_DecryptUpdate(context.get(), reinterpret_cast<unsigned char*>(&plain[0]),
                        &length, sealed.data() + kNonceSize,
                        static_cast<int>(text_size)) == 1 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG,
                          static_cast<int>(kTagSize),
                          sealed.data() + kNonceSize + text_size) == 1 &&
      EVP_DecryptFinal_ex(context.get(),
                          reinterpret_cast<unsigned char*>(&plain[0]) + length,
                          &final_length) == 1;
  if (!ok) {
    OPENSSL_cleanse(&plain[0], plain.size());
    throw std::runtime_error(
        "crypto: the stored password cannot be deciphered (wrong key or damaged)");
  }
  return plain;
}
