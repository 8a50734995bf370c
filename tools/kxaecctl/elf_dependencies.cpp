#include "elf_dependencies.h"

#include <elf.h>
#include <fcntl.h>
#include <glob.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <fstream>
#include <mutex>
#include <optional>
#include <vector>

#include "host/unique_fd.h"
#include "memo.h"
#include "resolved_directories.h"

namespace aectool {
namespace {

// Bounds that no real object comes near; a crafted file cannot make the
// tool read or allocate more than this.
constexpr std::size_t kMaxProgramHeaders = 4096;
constexpr std::size_t kMaxTableBytes = 64u << 20;
constexpr int kMaxIncludeDepth = 8;

struct ElfInfo {
  unsigned char elf_class = 0;
  std::uint16_t machine = 0;
  std::string interpreter;
  std::vector<std::string> needed;
  std::vector<std::string> rpath;
  std::vector<std::string> runpath;
};

// An ELF file read through its first 4 KiB: the identification, the file
// header, the program headers and the interpreter's name are there in
// practice, and often the dynamic string table too; one read serves them
// all. Anything beyond is read where it lies.
class File {
 public:
  explicit File(const std::string& path)
      : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}

  // Also reads the head; false for anything but a readable regular file.
  bool OpenRegular() {
    struct stat info;
    if (fd_.get() < 0 || ::fstat(fd_.get(), &info) != 0 ||
        !S_ISREG(info.st_mode)) {
      return false;
    }
    for (;;) {
      const ssize_t got = ::pread(fd_.get(), head_, sizeof head_, 0);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) return false;
      // A short read at the end of the file is the whole file.
      head_size_ = static_cast<std::size_t>(got);
      return true;
    }
  }

  // Exactly `size` bytes at `offset`, or false.
  bool Read(std::uint64_t offset, std::size_t size, void* out) const {
    if (size > kMaxTableBytes) return false;
    if (offset <= head_size_ && size <= head_size_ - offset) {
      std::memcpy(out, head_ + offset, size);
      return true;
    }
    auto* bytes = static_cast<char*>(out);
    std::size_t done = 0;
    while (done < size) {
      const ssize_t got = ::pread(fd_.get(), bytes + done, size - done,
                                  static_cast<off_t>(offset + done));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;
      done += static_cast<std::size_t>(got);
    }
    return true;
  }

 private:
  kxfs::UniqueFd fd_;
  char head_[4096];
  std::size_t head_size_ = 0;
};

std::vector<std::string> SplitPath(const std::string& text) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  for (;;) {
    const std::size_t colon = text.find(':', start);
    const std::string part = text.substr(start, colon - start);
    if (!part.empty()) parts.push_back(part);
    if (colon == std::string::npos) return parts;
    start = colon + 1;
  }
}

std::string StringAt(const std::vector<char>& table, std::uint64_t offset) {
  if (offset >= table.size()) return "";
  const char* begin = table.data() + offset;
  const void* end = std::memchr(begin, '\0', table.size() - offset);
  if (end == nullptr) return "";
  return std::string(begin, static_cast<const char*>(end));
}

template <typename Ehdr, typename Phdr, typename Dyn>
bool ParseElf(const File& file, ElfInfo* info) {
  Ehdr header;
  if (!file.Read(0, sizeof header, &header)) return false;
  if (header.e_phentsize != sizeof(Phdr) || header.e_phnum == 0 ||
      header.e_phnum > kMaxProgramHeaders) {
    return false;
  }
  info->machine = header.e_machine;
  std::vector<Phdr> segments(header.e_phnum);
  if (!file.Read(header.e_phoff, segments.size() * sizeof(Phdr),
                 segments.data())) {
    return false;
  }
  std::vector<Dyn> dynamic;
  for (const Phdr& segment : segments) {
    // Sizes are checked before anything is allocated for them.
    if (segment.p_type == PT_INTERP && segment.p_filesz > 1 &&
        segment.p_filesz <= PATH_MAX) {
      std::vector<char> text(segment.p_filesz);
      if (file.Read(segment.p_offset, text.size(), text.data())) {
        text.push_back('\0');
        info->interpreter = text.data();
      }
    } else if (segment.p_type == PT_DYNAMIC &&
               segment.p_filesz >= sizeof(Dyn) &&
               segment.p_filesz <= kMaxTableBytes) {
      dynamic.resize(segment.p_filesz / sizeof(Dyn));
      if (!file.Read(segment.p_offset, dynamic.size() * sizeof(Dyn),
                     dynamic.data())) {
        dynamic.clear();
      }
    }
  }
  std::uint64_t strtab = 0;
  std::uint64_t strsz = 0;
  std::vector<std::uint64_t> needed, rpath, runpath;
  for (const Dyn& entry : dynamic) {
    if (entry.d_tag == DT_NULL) break;
    switch (entry.d_tag) {
      case DT_NEEDED:
        needed.push_back(entry.d_un.d_val);
        break;
      case DT_RPATH:
        rpath.push_back(entry.d_un.d_val);
        break;
      case DT_RUNPATH:
        runpath.push_back(entry.d_un.d_val);
        break;
      case DT_STRTAB:
        strtab = entry.d_un.d_ptr;
        break;
      case DT_STRSZ:
        strsz = entry.d_un.d_val;
        break;
      default:
        break;
    }
  }
  if (needed.empty() && rpath.empty() && runpath.empty()) return true;
  // DT_STRTAB is an address; the loadable segment holding it gives the
  // file offset.
  std::optional<std::uint64_t> offset;
  for (const Phdr& segment : segments) {
    if (segment.p_type == PT_LOAD && strtab >= segment.p_vaddr &&
        strtab - segment.p_vaddr < segment.p_filesz) {
      offset = segment.p_offset + (strtab - segment.p_vaddr);
      break;
    }
  }
  if (!offset || strsz == 0 || strsz > kMaxTableBytes) return true;
  std::vector<char> table(strsz);
  if (!file.Read(*offset, table.size(), table.data())) return true;
  for (auto at : needed) {
    const std::string name = StringAt(table, at);
    if (!name.empty()) info->needed.push_back(name);
  }
  for (auto at : rpath) {
    for (auto& dir : SplitPath(StringAt(table, at))) info->rpath.push_back(dir);
  }
  for (auto at : runpath) {
    for (auto& dir : SplitPath(StringAt(table, at))) {
      info->runpath.push_back(dir);
    }
  }
  return true;
}

// False for anything that is not an ELF object of this machine's byte
// order.
bool ReadElfFile(const std::string& path, ElfInfo* info) {
  File file(path);
  if (!file.OpenRegular()) return false;
  unsigned char ident[EI_NIDENT];
  if (!file.Read(0, sizeof ident, ident) ||
      std::memcmp(ident, ELFMAG, SELFMAG) != 0) {
    return false;
  }
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  constexpr unsigned char kNativeData = ELFDATA2LSB;
#else
  constexpr unsigned char kNativeData = ELFDATA2MSB;
#endif
  if (ident[EI_DATA] != kNativeData) return false;
  info->elf_class = ident[EI_CLASS];
  if (ident[EI_CLASS] == ELFCLASS64) {
    return ParseElf<Elf64_Ehdr, Elf64_Phdr, Elf64_Dyn>(file, info);
  }
  if (ident[EI_CLASS] == ELFCLASS32) {
    return ParseElf<Elf32_Ehdr, Elf32_Phdr, Elf32_Dyn>(file, info);
  }
  return false;
}

// The caches below are made once and never destroyed: a proposal run fills
// them with tens of thousands of entries, and freeing them one by one at
// exit cost a noticeable part of the run for nothing.
//
// ReadElfFile, remembered by path for the life of the process. Proposals
// for thousands of programs resolve the same few libraries (and probe the
// same search directories) over and over; reading each once makes the
// dependencies of a program cost its own headers only. The tool is one
// short run: a file replaced while it runs is a race that no answer avoids.
//
// Null for anything that is not an ELF object of this machine's byte
// order. The file is read without a lock: proposals resolve on several
// threads, and the reading is the slow part. Two threads may read the same
// file; the first answer stays.
const ElfInfo* ReadElf(const std::string& path) {
  static auto& known = *new Memo<std::optional<ElfInfo>>();
  const std::optional<ElfInfo>* found = known.Find(path);
  if (found == nullptr) {
    ElfInfo read;
    const bool elf = ReadElfFile(path, &read);
    found = &known.Remember(
        path, elf ? std::optional<ElfInfo>(std::move(read)) : std::nullopt);
  }
  return found->has_value() ? &found->value() : nullptr;
}

// realpath, remembered by path like ReadElf. The same libraries are reached
// from every program, and thousands of files share a few directories: a
// file that is not a link itself costs one lstat (ResolvedDirectories).
const std::optional<std::string>& Canonical(const std::string& path) {
  static auto& known = *new Memo<std::optional<std::string>>();
  static std::mutex directories_mutex;
  static auto& directories = *new ResolvedDirectories();
  if (const auto* found = known.Find(path)) return *found;
  std::optional<std::string> canonical;
  const auto slash = path.find_last_of('/');
  const std::string leaf =
      slash == std::string::npos ? path : path.substr(slash + 1);
  struct stat info;
  if (slash != std::string::npos && slash != 0 && leaf != "." && leaf != ".." &&
      !leaf.empty() && ::lstat(path.c_str(), &info) == 0 &&
      !S_ISLNK(info.st_mode)) {
    std::lock_guard<std::mutex> lock(directories_mutex);
    canonical = directories.FileIn(path);
  } else {
    char buffer[PATH_MAX];
    if (::realpath(path.c_str(), buffer) != nullptr) canonical = buffer;
  }
  return known.Remember(path, std::move(canonical));
}

std::string DirName(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string ExpandOrigin(std::string dir, const std::string& origin) {
  for (const char* token : {"${ORIGIN}", "$ORIGIN"}) {
    const std::size_t length = std::strlen(token);
    for (std::size_t at = dir.find(token); at != std::string::npos;
         at = dir.find(token, at + origin.size())) {
      dir.replace(at, length, origin);
    }
  }
  return dir;
}

void ReadLdSoConf(const std::string& path, int depth,
                  std::vector<std::string>* dirs) {
  if (depth > kMaxIncludeDepth) return;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    line = line.substr(0, line.find('#'));
    const auto first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos) continue;
    line = line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
    if (line.compare(0, 8, "include ") == 0 ||
        line.compare(0, 8, "include\t") == 0) {
      std::string pattern = line.substr(8);
      pattern = pattern.substr(pattern.find_first_not_of(" \t"));
      if (pattern[0] != '/') pattern = DirName(path) + "/" + pattern;
      glob_t matches;
      if (::glob(pattern.c_str(), 0, nullptr, &matches) == 0) {
        for (std::size_t i = 0; i < matches.gl_pathc; ++i) {
          ReadLdSoConf(matches.gl_pathv[i], depth + 1, dirs);
        }
      }
      ::globfree(&matches);
    } else if (line[0] == '/') {
      dirs->push_back(line);
    }
  }
}

const std::vector<std::string>& SystemDirs() {
  static const std::vector<std::string> dirs = [] {
    std::vector<std::string> found;
    ReadLdSoConf("/etc/ld.so.conf", 0, &found);
    for (const char* dir :
         {"/lib/x86_64-linux-gnu", "/usr/lib/x86_64-linux-gnu",
          "/lib/aarch64-linux-gnu", "/usr/lib/aarch64-linux-gnu",
          "/lib/i386-linux-gnu", "/usr/lib/i386-linux-gnu", "/lib64",
          "/usr/lib64", "/lib32", "/usr/lib32", "/lib", "/usr/lib"}) {
      found.push_back(dir);
    }
    return found;
  }();
  return dirs;
}

std::optional<std::string> Search(const std::string& name,
                                  const std::string& object,
                                  const ElfInfo& info) {
  std::vector<std::string> search;
  const std::string origin = DirName(object);
  // The loader ignores DT_RPATH when DT_RUNPATH is present.
  for (const auto& dir : info.runpath.empty() ? info.rpath : info.runpath) {
    search.push_back(ExpandOrigin(dir, origin));
  }
  for (const auto& dir : SystemDirs()) search.push_back(dir);
  if (name.find('/') != std::string::npos) search.assign(1, "");
  for (const auto& dir : search) {
    const std::string candidate = dir.empty() ? name : dir + "/" + name;
    const ElfInfo* other = ReadElf(candidate);
    if (other != nullptr && other->elf_class == info.elf_class &&
        other->machine == info.machine) {
      return Canonical(candidate);
    }
  }
  return std::nullopt;
}

// Search, remembered for the same name, search path, origin and object
// kind: every program asks for the same libc through the same directories.
const std::optional<std::string>& Resolve(const std::string& name,
                                          const std::string& object,
                                          const ElfInfo& info) {
  static auto& known = *new Memo<std::optional<std::string>>();
  std::string key = name;
  key.push_back('\0');
  key.push_back(static_cast<char>(info.elf_class));
  key.append(std::to_string(info.machine)).push_back('\0');
  const auto& dirs = info.runpath.empty() ? info.rpath : info.runpath;
  bool needs_origin = false;
  for (const auto& dir : dirs) {
    key.append(dir).push_back('\0');
    needs_origin = needs_origin || dir.find("$ORIGIN") != std::string::npos ||
                   dir.find("${ORIGIN}") != std::string::npos;
  }
  if (needs_origin) key.append(DirName(object));
  if (const auto* found = known.Find(key)) return *found;
  return known.Remember(key, Search(name, object, info));
}

// The interpreter named on a script's "#!" line, if any.
std::optional<std::string> ScriptInterpreter(const std::string& path) {
  File file(path);
  if (!file.OpenRegular()) return std::nullopt;
  char head[256] = {};
  std::size_t got = 0;
  while (got < sizeof head - 1 && file.Read(got, 1, head + got)) {
    if (head[got] == '\n') break;
    ++got;
  }
  const std::string line(head, got);
  if (line.compare(0, 2, "#!") != 0) return std::nullopt;
  const auto start = line.find_first_not_of(" \t", 2);
  if (start == std::string::npos || line[start] != '/') return std::nullopt;
  const auto end = line.find_first_of(" \t\r", start);
  return line.substr(start, end - start);
}

}  // namespace

namespace {

Dependencies WalkDependencies(const std::string& path) {
  Dependencies result;
  std::set<std::string> visited;
  std::deque<std::string> queue;
  auto add = [&](const std::string& dependency) {
    const auto& canonical = Canonical(dependency);
    if (!canonical) return;
    if (visited.insert(*canonical).second) {
      result.found.insert(*canonical);
      queue.push_back(*canonical);
    }
  };
  if (const auto& self = Canonical(path)) visited.insert(*self);
  queue.push_back(path);
  while (!queue.empty()) {
    const std::string object = queue.front();
    queue.pop_front();
    const ElfInfo* info = ReadElf(object);
    if (info == nullptr) {
      if (const auto interpreter = ScriptInterpreter(object)) add(*interpreter);
      continue;
    }
    if (!info->interpreter.empty()) add(info->interpreter);
    for (const auto& name : info->needed) {
      if (const auto& found = Resolve(name, object, *info)) {
        add(*found);
      } else {
        result.unresolved.insert(object + ": " + name);
      }
    }
  }
  result.found.erase(Canonical(path).value_or(path));
  return result;
}

}  // namespace

// Remembered by path like ReadElf: proposals list the same libraries for
// many programs, and each walk would visit the same objects again.
const Dependencies& FindDependencies(const std::string& path) {
  static auto& known = *new Memo<Dependencies>();
  if (const Dependencies* found = known.Find(path)) return *found;
  return known.Remember(path, WalkDependencies(path));
}

}  // namespace aectool
