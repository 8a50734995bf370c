#include "resources.h"

#include <sys/stat.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <fstream>
#include <iostream>

#include "elf_dependencies.h"
#include "tool_error.h"

namespace aectool {
namespace {

namespace fs = boost::filesystem;

std::string Trim(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

bool IsDirectory(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool IsRegular(const fs::path& path) {
  boost::system::error_code ec;
  return fs::is_regular_file(fs::status(path, ec));  // links followed
}

void AddDirectory(const std::string& dir, bool recursive,
                  std::set<std::string>* files) {
  boost::system::error_code ec;
  const std::string base =
      dir.size() > 1 && dir.back() == '/' ? dir.substr(0, dir.size() - 1) : dir;
  if (recursive) {
    for (fs::recursive_directory_iterator it(base, ec), end; !ec && it != end;
         it.increment(ec)) {
      if (IsRegular(it->path())) files->insert(it->path().string());
    }
  } else {
    for (fs::directory_iterator it(base, ec), end; !ec && it != end;
         it.increment(ec)) {
      if (IsRegular(it->path())) files->insert(it->path().string());
    }
  }
  if (ec) {
    throw ToolError(Exit::kResourceMissing,
                    "cannot read the directory " + dir + ": " + ec.message(),
                    {dir});
  }
}

}  // namespace

bool ResourceExists(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0;
}

std::vector<std::string> ReadResourceList(const std::string& path) {
  std::ifstream in(path);
  if (!in || IsDirectory(path)) {
    throw ToolError(Exit::kResourceMissing,
                    "cannot read the resource list " + path, {path});
  }
  std::vector<std::string> entries;
  for (std::string line; std::getline(in, line);) {
    const std::string entry = Trim(line);
    if (entry.empty() || entry[0] == '#') continue;
    entries.push_back(entry);
  }
  return entries;
}

std::set<std::string> CollectResources(const ResourceRequest& request) {
  std::vector<std::string> paths = request.paths;
  if (request.list_file) {
    if (request.list_file->empty() || (*request.list_file)[0] != '/') {
      throw ToolError(Exit::kInvalidArgument,
                      "not an absolute path: " + *request.list_file);
    }
    for (auto& entry : ReadResourceList(*request.list_file)) {
      paths.push_back(entry);
    }
  }
  std::vector<std::string> missing;
  for (const auto& path : paths) {
    if (path.empty() || path[0] != '/') {
      throw ToolError(Exit::kInvalidArgument,
                      "not an absolute path: '" + path + "'");
    }
    if (!request.checked_files && !ResourceExists(path) &&
        std::find(missing.begin(), missing.end(), path) == missing.end()) {
      missing.push_back(path);
    }
  }
  if (!missing.empty()) {
    throw ToolError(Exit::kResourceMissing,
                    WithObjects("resources do not exist", missing), missing);
  }

  std::set<std::string> resources;
  for (const auto& path : paths) {
    if (!request.checked_files && IsDirectory(path)) {
      AddDirectory(path, request.recursive, &resources);
    } else {
      resources.insert(path);
    }
  }
  if (request.dependencies) {
    std::set<std::string> needed;
    for (const auto& resource : resources) {
      const Dependencies& found = FindDependencies(resource);
      needed.insert(found.found.begin(), found.found.end());
      for (const auto& name : found.unresolved) {
        if (request.unresolved != nullptr) {
          request.unresolved->push_back(name);
        } else {
          std::cerr << "kxaecctl: not found, not added: " << name << "\n";
        }
      }
    }
    resources.insert(needed.begin(), needed.end());
  }
  return resources;
}

}  // namespace aectool
