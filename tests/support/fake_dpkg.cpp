#include "fake_dpkg.h"

#include <boost/filesystem.hpp>

#include "kxtest.h"

namespace kxtest {
namespace {

std::string DpkgParagraph(const std::string& name, const std::string& status,
                          const std::string& fields) {
  return "Package: " + name + "\nStatus: " + status +
         "\nPriority: optional\nArchitecture: amd64\n" + fields +
         "Description: test package\n continued description\n\n";
}

}  // namespace

void WriteDpkgDatabase(const std::string& admindir,
                       const std::vector<FakePackage>& packages) {
  const std::string dir =
      !admindir.empty() && admindir.back() == '/' ? admindir : admindir + "/";
  const std::string info = dir + "info/";
  boost::filesystem::create_directories(info);
  std::string status;
  for (const FakePackage& package : packages) {
    status += DpkgParagraph(package.name, package.status, package.fields);
    if (!package.has_list) continue;
    const bool qualified =
        package.fields.find("Multi-Arch: same\n") != std::string::npos;
    std::string list;
    for (const std::string& file : package.files) list += file + "\n";
    WriteFile(info + package.name + (qualified ? ":amd64" : "") + ".list",
              list);
  }
  WriteFile(dir + "status", status);
}

}  // namespace kxtest
