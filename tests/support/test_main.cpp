// The test process enters its private mount namespace before any test runs,
// so no test can reach the machine's /opt/korvex.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <boost/filesystem.hpp>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "lib/fresh_install.h"
#include "lib/runtime.h"
#include "lib/sandbox.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  std::string pattern = "/tmp/kxtest-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  if (mkdtemp(name.data()) == nullptr) {
    std::perror("kxtest: mkdtemp");
    return 2;
  }
  const std::string base = name.data();
  try {
    kxhost::MakeRootLayout(base);
    kxhost::SeedFreshInstall(base);
    kxhost::EnterSandbox(base);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kxtest: cannot enter the sandbox: %s\n", e.what());
    boost::system::error_code ignored;
    boost::filesystem::remove_all(base, ignored);
    return 2;
  }
  kxhost::RuntimeOptions options;
  options.sysctl_root = "/opt/korvex/var/run/sysctl";
  options.events_file = "";
  options.mirror_to_stderr = false;
  kxhost::Configure(options);

  const int result = RUN_ALL_TESTS();

  kxhost::ResetState();
  boost::system::error_code ignored;
  boost::filesystem::remove_all(base, ignored);
  return result;
}
