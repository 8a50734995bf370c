#include "fake_dpkg_database.h"

#include <boost/filesystem.hpp>

#include "kxtest.h"

namespace kxtest {

std::string DpkgStatusParagraph(const FakePackage& package) {
  return "Package: " + package.name + "\nStatus: " + package.status +
         "\nPriority: optional\nArchitecture: amd64\n" + package.fields +
         "Description: test package\n continued description\n\n";
}

void WriteDpkgDatabase(const std::string& admin_dir,
                       const std::vector<FakePackage>& packages) {
  namespace fs = boost::filesystem;
  const fs::path info = fs::path(admin_dir) / "info";
  fs::remove_all(info);
  fs::create_directories(info);
  std::string status;
  for (const auto& package : packages) {
    status += DpkgStatusParagraph(package);
    if (!package.has_list) continue;
    std::string list;
    for (const auto& line : package.list) list += line + "\n";
    const std::string list_name =
        package.list_name.empty() ? package.name : package.list_name;
    WriteFile((info / (list_name + ".list")).string(), list);
  }
  WriteFile((fs::path(admin_dir) / "status").string(), status);
}

}  // namespace kxtest
