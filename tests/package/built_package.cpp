#include "built_package.h"

#include <stdlib.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "package_sandbox.h"

namespace pkgtest {
namespace fs = boost::filesystem;
namespace {

std::string g_work_dir;

void RemoveWorkDir() {
  boost::system::error_code ignored;
  if (!g_work_dir.empty()) fs::remove_all(g_work_dir, ignored);
}

std::string Describe(const std::string& step, const RunResult& run) {
  return step + " exited with " + std::to_string(run.exit_code) + "\n" +
         run.out + run.err;
}

// Fills `packages`; sets `error` at the first step that fails.
void Make(BuiltPackages* packages) {
  std::string pattern = "/tmp/kxpkg-build-XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) {
    packages->error = "mkdtemp failed";
    return;
  }
  g_work_dir = pattern;
  std::atexit(RemoveWorkDir);
  packages->version = KX_PACKAGE_VERSION;
  packages->upgrade_version = packages->version + "+kxtest1";

  const std::string out_dir = g_work_dir + "/cpack";
  const RunResult cpack =
      RunProgram({KX_CPACK_COMMAND, "--config", KX_CPACK_CONFIG, "-G", "DEB",
                  "-B", out_dir});
  if (cpack.exit_code != 0) {
    packages->error = Describe("cpack", cpack);
    return;
  }
  for (fs::directory_iterator it(out_dir), end; it != end; ++it) {
    if (it->path().extension() == ".deb") packages->deb = it->path().string();
  }
  if (packages->deb.empty()) {
    packages->error = "cpack made no .deb in " + out_dir + "\n" + cpack.out;
    return;
  }

  // The upgrade: extracted, the control file's version raised, rebuilt.
  const std::string tree = g_work_dir + "/upgrade-tree";
  const RunResult extract =
      RunProgram({"/usr/bin/dpkg-deb", "-R", packages->deb, tree});
  if (extract.exit_code != 0) {
    packages->error = Describe("dpkg-deb -R", extract);
    return;
  }
  const std::string control_path = tree + "/DEBIAN/control";
  std::ifstream in(control_path);
  std::ostringstream control;
  std::string line;
  bool replaced = false;
  while (std::getline(in, line)) {
    if (line == "Version: " + packages->version) {
      line = "Version: " + packages->upgrade_version;
      replaced = true;
    }
    control << line << "\n";
  }
  in.close();
  if (!replaced) {
    packages->error =
        "no \"Version: " + packages->version + "\" in " + control_path;
    return;
  }
  std::ofstream(control_path, std::ios::trunc) << control.str();
  packages->upgrade_deb = g_work_dir + "/korvex-aec_upgrade.deb";
  const RunResult build = RunProgram({"/usr/bin/dpkg-deb", "--root-owner-group",
                                      "-b", tree, packages->upgrade_deb});
  if (build.exit_code != 0) packages->error = Describe("dpkg-deb -b", build);
}

}  // namespace

const BuiltPackages& Packages() {
  static const BuiltPackages packages = [] {
    BuiltPackages made;
    Make(&made);
    return made;
  }();
  return packages;
}

}  // namespace pkgtest
