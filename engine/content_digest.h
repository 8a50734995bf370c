// SHA-256 of a file's content, for the optional integrity check of
// resources: a resource whose content differs from what it was when the
// set was loaded is not allowed by its rules.
#pragma once

#include <array>
#include <string>

namespace aec::engine {

using Digest = std::array<unsigned char, 32>;

// From the current offset-independent content of `fd` (pread); false on a
// read error.
bool DigestOfFd(int fd, Digest *digest);
bool DigestOfFile(const std::string &path, Digest *digest);

} // namespace aec::engine
