#include <stdlib.h>

#include <boost/filesystem.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "kxtest.h"
#include "lib/fresh_install.h"
#include "lib/runtime.h"
#include "lib/sandbox.h"

namespace kxtest {

ScratchRoot::ScratchRoot() {
  std::string pattern = "/tmp/kxroot-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  if (mkdtemp(name.data()) == nullptr) {
    throw std::runtime_error("ScratchRoot: mkdtemp failed");
  }
  dir_ = name.data();
  kxhost::MakeRootLayout(dir_);
  kxhost::SeedFreshInstall(dir_);
  kxhost::PushRoot(dir_);
  kxhost::ResetState();
  kxhost::ClearEvents();
}

ScratchRoot::~ScratchRoot() {
  // Closed before the root goes, so that nothing keeps using the old one.
  kxhost::ResetState();
  kxhost::PopRoot();
  kxhost::ResetState();
  boost::system::error_code ignored;
  boost::filesystem::remove_all(dir_, ignored);
}

}  // namespace kxtest
