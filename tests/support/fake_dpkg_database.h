// A dpkg database made by a test: the status file and the per-package file
// lists that the baseline reads, for packages whose files the test put in
// its own sandbox. Lets a test install, remove and break packages without
// dpkg.
#pragma once

#include <string>
#include <vector>

namespace kxtest {

struct FakePackage {
  std::string name;
  std::string status = "install ok installed";
  // More status fields, each "Name: value\n" ("Multi-Arch: same\n").
  std::string fields = "";
  // The list file's name without ".list"; empty: `name`. A package
  // installable for several architectures has "<name>:<arch>".
  std::string list_name = "";
  // The lines of info/<list_name>.list, as dpkg writes them (directories
  // included). No list file at all when `has_list` is false.
  std::vector<std::string> list = {};
  bool has_list = true;
};

// The status paragraph dpkg keeps for `package`.
std::string DpkgStatusParagraph(const FakePackage& package);

// Writes `admin_dir`/status with every package's paragraph and each
// package's list file below `admin_dir`/info, making the directories.
// Rewrites what is there, so calling it again with a changed set is a
// package change; list files of packages no longer given are removed.
void WriteDpkgDatabase(const std::string& admin_dir,
                       const std::vector<FakePackage>& packages);

}  // namespace kxtest
