// SHA-256 of a file's content, through OpenSSL's EVP interface.
#pragma once

#include <string>

namespace kxaide {

// The digest of the file at `path` as 64 lowercase hexadecimal digits.
// Throws AideError(kExitIo) when the file cannot be opened or read.
std::string Sha256File(const std::string& path);

}  // namespace kxaide
