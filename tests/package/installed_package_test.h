// The fixture of the tests that start from korvex-aec freshly installed with
// dpkg in a clean package sandbox.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "built_package.h"
#include "installed_system.h"
#include "package_sandbox.h"

namespace pkgtest {

class InstalledPackageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(Packages().error, "");
    sandbox_ = std::make_unique<PackageSandbox>();
    ASSERT_FALSE(Exists(kRoot)) << "the machine in the sandbox is not clean";
    const RunResult install = sandbox_->Dpkg({"-i", Packages().deb});
    ASSERT_EQ(install.exit_code, 0) << install.out << install.err;
  }
  void TearDown() override { sandbox_.reset(); }

  std::unique_ptr<PackageSandbox> sandbox_;
};

}  // namespace pkgtest
