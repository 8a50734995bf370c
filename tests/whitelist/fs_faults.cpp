// Write faults inside the sandbox (the test process runs as root, so only a
// read-only mount or a full file system makes a write fail).
#include <sys/mount.h>

#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/policy_sources.h"
#include "whitelist_env.h"

namespace wltest {
namespace {

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

std::string StoredSource(const char* key) {
  std::ifstream in(AecPolicySources::ConfigPath());
  if (!in) return "<no file>";
  boost::property_tree::ptree tree;
  boost::property_tree::read_json(in, tree);
  return tree.get<std::string>(key, "<no key>");
}

}  // namespace

ReadOnlyDir::ReadOnlyDir(const std::string& dir) : dir_(dir) {
  if (mount(dir_.c_str(), dir_.c_str(), nullptr, MS_BIND, nullptr) != 0) {
    Fail("bind " + dir_);
  }
  if (mount(nullptr, dir_.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY,
            nullptr) != 0) {
    umount2(dir_.c_str(), MNT_DETACH);
    Fail("remount read-only " + dir_);
  }
}

ReadOnlyDir::~ReadOnlyDir() { umount2(dir_.c_str(), MNT_DETACH); }

FullDir::FullDir(const std::string& dir) : dir_(dir) {
  namespace fs = boost::filesystem;
  // Keep the regular files the directory holds now.
  std::vector<std::pair<std::string, std::string>> files;
  for (const auto& entry : fs::directory_iterator(dir_)) {
    if (!fs::is_regular_file(entry.status())) continue;
    std::ifstream in(entry.path().string(), std::ios::binary);
    std::string content((std::istreambuf_iterator<char>(in)),
                        std::istreambuf_iterator<char>());
    files.emplace_back(entry.path().filename().string(), content);
  }
  if (mount("tmpfs", dir_.c_str(), "tmpfs", 0, "size=64k") != 0) {
    Fail("tmpfs over " + dir_);
  }
  for (const auto& file : files) {
    std::ofstream out(dir_ + "/" + file.first, std::ios::binary);
    out << file.second;
  }
  // Fill what is left, page by page, until the file system refuses.
  std::ofstream filler(dir_ + "/.filler", std::ios::binary);
  const std::string page(4096, 'x');
  for (int i = 0; i < 64 && filler; ++i) {
    filler << page;
    filler.flush();
  }
}

FullDir::~FullDir() { umount2(dir_.c_str(), MNT_DETACH); }

std::string StoredWhitelistSource() { return StoredSource("whitelist"); }
std::string StoredExceptionSource() { return StoredSource("exceptions"); }

}  // namespace wltest
