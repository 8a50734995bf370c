// nss_wrapper only works when it is preloaded at process start, so before
// main() the suite re-executes itself once with LD_PRELOAD and its own
// passwd/group files. Running the binary directly and through ctest then
// behave the same.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "whitelist_env.h"

namespace wltest {

const char* const kPasswdFile =
    "root:x:0:0:root:/root:/bin/sh\n"
    "alice@corp:x:1001:1001:Alice:/home/alice:/bin/sh\n"
    "corp\\bob:x:1002:1002:Bob:/home/bob:/bin/sh\n"
    "dave@corp:x:1004:1004:Dave:/home/dave:/bin/sh\n"
    "corp\\dave:x:1005:1004:Dave again:/home/dave2:/bin/sh\n";
const char* const kGroupFile =
    "root:x:0:\n"
    "devs@corp:x:2001:alice@corp\n"
    "corp\\ops:x:2002:corp\\bob\n";

namespace {

constexpr const char* kMarker = "KX_WHITELIST_NSS_DIR";

bool WriteWhole(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::trunc);
  out << text;
  out.close();
  return static_cast<bool>(out);
}

std::vector<std::string> OwnArguments() {
  std::ifstream in("/proc/self/cmdline", std::ios::binary);
  const std::string all((std::istreambuf_iterator<char>(in)),
                        std::istreambuf_iterator<char>());
  std::vector<std::string> args;
  std::string::size_type start = 0;
  while (start < all.size()) {
    const std::string::size_type end = all.find('\0', start);
    args.push_back(all.substr(start, end - start));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return args;
}

void Append(const char* name, const std::string& value, char separator) {
  const char* old = std::getenv(name);
  std::string text = value;
  if (old != nullptr && *old != '\0')
    text = std::string(old) + separator + value;
  setenv(name, text.c_str(), 1);
}

// The wrapped process removes the files when it ends; children that only
// fork and exec never run this.
struct NssFiles {
  std::string dir;
  pid_t owner = 0;
  ~NssFiles() {
    if (dir.empty() || getpid() != owner) return;
    unlink((dir + "/passwd").c_str());
    unlink((dir + "/group").c_str());
    rmdir(dir.c_str());
  }
};

NssFiles g_files;

struct Reexec {
  Reexec() {
    if (const char* dir = std::getenv(kMarker)) {
      g_files.dir = dir;
      g_files.owner = getpid();
      return;
    }
    if (std::string(KX_NSS_WRAPPER_LIB).empty()) return;
    char pattern[] = "/tmp/kxnss-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return;
    const std::string dir = pattern;
    if (!WriteWhole(dir + "/passwd", kPasswdFile) ||
        !WriteWhole(dir + "/group", kGroupFile)) {
      std::fprintf(stderr, "whitelist_tests: cannot write the nss files\n");
      return;
    }
    std::vector<std::string> args = OwnArguments();
    if (args.empty()) return;
    setenv(kMarker, dir.c_str(), 1);
    setenv("NSS_WRAPPER_PASSWD", (dir + "/passwd").c_str(), 1);
    setenv("NSS_WRAPPER_GROUP", (dir + "/group").c_str(), 1);
    Append("LD_PRELOAD", KX_NSS_WRAPPER_LIB, ':');
    // Under AddressSanitizer the preloaded library comes before its runtime.
    Append("ASAN_OPTIONS", "verify_asan_link_order=0", ':');
#ifdef __SANITIZE_ADDRESS__
    // The sanitizer runtime cannot serve a libc opened with RTLD_DEEPBIND,
    // which nss_wrapper uses unless told not to.
    setenv("NSS_WRAPPER_DISABLE_DEEPBIND", "1", 1);
#endif
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    // By its real path: a tool that runs the binary (valgrind) answers the
    // link with the binary's path, while /proc/self/exe itself is the tool.
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0) {
      std::perror("whitelist_tests: finding the binary");
      std::_Exit(2);
    }
    self[length] = '\0';
    execv(self, argv.data());
    std::perror("whitelist_tests: re-executing with nss_wrapper");
    std::_Exit(2);
  }
};

Reexec g_reexec;

}  // namespace

bool NssWrapped() {
  const char* preload = std::getenv("LD_PRELOAD");
  return std::getenv(kMarker) != nullptr && preload != nullptr &&
         std::string(preload).find("nss_wrapper") != std::string::npos;
}

}  // namespace wltest
