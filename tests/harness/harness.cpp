#include "harness.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace kxharness {

ProgramResult RunKxhost(const std::vector<std::string>& args,
                        const std::map<std::string, std::string>& env,
                        const std::string& input) {
  return kxtest::RunKxhost(args, input, env);
}

pid_t SpawnKxhost(const std::vector<std::string>& args,
                  const std::map<std::string, std::string>& env) {
  std::vector<std::string> argv = {KX_KXHOST_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  return kxtest::SpawnProgram(argv, env);
}

int Wait(pid_t pid) { return kxtest::WaitFor(pid); }

std::string Sha256(const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr);
  static const char kHex[] = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < length; ++i) {
    text += kHex[digest[i] >> 4];
    text += kHex[digest[i] & 15];
  }
  return text;
}

std::string ReadFileOr(const std::string& path, const std::string& fallback) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return fallback;
  return std::string(std::istreambuf_iterator<char>(in),
                     std::istreambuf_iterator<char>());
}

namespace {

void SnapshotInto(const std::string& dir, const std::string& relative,
                  const std::function<bool(const std::string&)>& skip,
                  Tree* tree) {
  DIR* handle = opendir(dir.c_str());
  if (handle == nullptr) return;
  std::vector<std::string> names;
  while (const dirent* entry = readdir(handle)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(handle);
  for (const std::string& name : names) {
    const std::string path = dir + "/" + name;
    const std::string rel = relative.empty() ? name : relative + "/" + name;
    if (skip && skip(rel)) continue;
    struct stat info;
    if (lstat(path.c_str(), &info) != 0) continue;
    Node node;
    node.mode = info.st_mode & 07777;
    node.size = info.st_size;
    if (S_ISDIR(info.st_mode)) {
      node.type = 'd';
      node.size = 0;
      (*tree)[rel] = node;
      SnapshotInto(path, rel, skip, tree);
      continue;
    }
    if (S_ISREG(info.st_mode)) {
      node.type = 'f';
      node.sha256 = Sha256(ReadFileOr(path, ""));
    } else if (S_ISLNK(info.st_mode)) {
      node.type = 'l';
      char target[4096];
      const ssize_t n = readlink(path.c_str(), target, sizeof target);
      node.sha256 = Sha256(std::string(target, n > 0 ? n : 0));
    }
    (*tree)[rel] = node;
  }
}

}  // namespace

Tree Snapshot(const std::string& dir,
              const std::function<bool(const std::string&)>& skip) {
  Tree tree;
  SnapshotInto(dir, "", skip, &tree);
  return tree;
}

std::vector<std::string> Differences(const Tree& before, const Tree& after) {
  std::vector<std::string> result;
  for (const auto& item : before) {
    const auto found = after.find(item.first);
    if (found == after.end()) {
      result.push_back("removed " + item.first);
    } else if (!(found->second == item.second)) {
      result.push_back("changed " + item.first);
    }
  }
  for (const auto& item : after) {
    if (before.count(item.first) == 0) result.push_back("added " + item.first);
  }
  return result;
}

ScratchTmpfs::ScratchTmpfs(const std::string& prefix, const std::string& size)
    : dir_(MakeTempDir(prefix)) {
  if (mount("kxscratch", dir_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
            ("size=" + size + ",mode=0755").c_str()) != 0) {
    const int error = errno;
    rmdir(dir_.c_str());
    throw std::runtime_error("ScratchTmpfs: mount: " +
                             std::string(strerror(error)));
  }
}

ScratchTmpfs::~ScratchTmpfs() {
  umount2(dir_.c_str(), MNT_DETACH);
  rmdir(dir_.c_str());
}

void RemoveTree(const std::string& dir) {
  boost::system::error_code ignored;
  boost::filesystem::remove_all(dir, ignored);
}

}  // namespace kxharness
