// The list of what kxaide checksums (crc-rule.conf).
//
// Text, one entry per line:
//   - an absolute path of a file: that file;
//   - an absolute path of a directory (with or without a trailing "/"): every
//     regular file directly in it (symbolic links to regular files
//     included, subdirectories and other entries not);
//   - blank lines and lines whose first non-blank character is "#" are
//     ignored; blanks around an entry are dropped.
// A listed path that does not exist stands for nothing, so a file that is
// created later shows as appeared and one that is removed as vanished.
#pragma once

#include <string>
#include <vector>

#include "kxaide/checksum_db.h"

namespace kxaide {

// The entries of the list file at `path`. Throws AideError(kExitBadList)
// when the file cannot be read or an entry is not an absolute path.
std::vector<std::string> ReadList(const std::string& path);

// The digest of every file the entries stand for. Throws AideError(kExitIo)
// when a listed directory or file cannot be read, or a listed path is
// neither a directory nor a regular file.
ChecksumDb ComputeChecksums(const std::vector<std::string>& entries);

}  // namespace kxaide
