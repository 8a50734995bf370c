// A dpkg database written by a test, read as `dpkg --admindir DIR` reads
// one: the status file and a file list per package. Lets the baseline be
// built from files inside a sandbox instead of the machine's packages.
#pragma once

#include <string>
#include <vector>

namespace kxtest {

struct FakePackage {
  std::string name;
  std::string status = "install ok installed";
  // Further status fields, each "Name: value\n" ("Multi-Arch: same" makes
  // the list file name carry the architecture, as dpkg names it).
  std::string fields;
  // The file list, one path a line; no list file at all when false.
  bool has_list = true;
  std::vector<std::string> files;
};

// Writes `admindir`/status with a paragraph per package, as dpkg writes
// one (architecture amd64, a two-line description), and
// `admindir`/info/<name>[:amd64].list for each package that has a list,
// making the directories. Throws std::runtime_error when a file cannot be
// written.
void WriteDpkgDatabase(const std::string& admindir,
                       const std::vector<FakePackage>& packages);

}  // namespace kxtest
