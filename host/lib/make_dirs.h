// Making a directory with its missing parents, for the sandbox and the
// seeding of an install root.
#pragma once

#include <string>

namespace kxhost {

// Makes `path` and every missing parent (mode 0755 before the umask);
// existing ones are kept. Throws std::runtime_error naming the directory
// that could not be made and why.
void MakeDirs(const std::string& path);

}  // namespace kxhost
