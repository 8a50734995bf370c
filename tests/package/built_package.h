// The packages under test, made once per test process from the build tree
// the tests belong to: cpack packs what this tree built (no second
// compile), and an "upgrade" is the same package repacked under a higher
// version.
#pragma once

#include <string>

namespace pkgtest {

struct BuiltPackages {
  std::string deb;          // korvex-aec as cpack made it
  std::string upgrade_deb;  // the same files, version `upgrade_version`
  std::string version;      // the project's version
  std::string upgrade_version;
  std::string error;  // non-empty: the packages could not be made
};

// Made on first call, removed when the process ends.
const BuiltPackages& Packages();

}  // namespace pkgtest
