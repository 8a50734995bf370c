// Replacing files whole, safely.
//
// ReplaceFile writes `content` to a new temporary file in `temp_dir` (which
// must be on the same file system as `path`, and is chosen by the caller so
// that the temporary never appears where a directory walk would read it),
// flushes it to disk, gives it `mode`, and renames it over `path`. Either the
// old content or the new content is at `path` at every moment, also after a
// crash. On failure the temporary file is removed, `path` is untouched, and
// std::system_error is thrown with the failing step and errno.
#pragma once

#include <string>

#include "host/host_api.h"

namespace kxfs {

KX_HOST_API void ReplaceFile(const std::string& path, const std::string& content,
                             const std::string& temp_dir, unsigned mode = 0644);

}  // namespace kxfs
