#include "elf_probe.h"

#include <elf.h>
#include <unistd.h>

#include <cstring>
#include <vector>

namespace aec::engine {

namespace {

bool ReadAt(int fd, void *buffer, size_t size, off_t offset) {
  size_t done = 0;
  while (done < size) {
    const ssize_t got = pread(fd, static_cast<char *>(buffer) + done,
                              size - done, offset + static_cast<off_t>(done));
    if (got <= 0)
      return false;
    done += static_cast<size_t>(got);
  }
  return true;
}

template <typename Ehdr, typename Phdr, typename Dyn>
bool IsSharedObject(int fd, const Ehdr &eh) {
  if (eh.e_type != ET_DYN)
    return false;
  if (eh.e_phentsize != sizeof(Phdr) || eh.e_phnum == 0 || eh.e_phnum > 512) {
    return true; // no program headers to tell a program by: a library
  }
  std::vector<Phdr> ph(eh.e_phnum);
  if (!ReadAt(fd, ph.data(), ph.size() * sizeof(Phdr),
              static_cast<off_t>(eh.e_phoff))) {
    return true;
  }
  for (const Phdr &p : ph) {
    if (p.p_type != PT_DYNAMIC)
      continue;
    const size_t count = p.p_filesz / sizeof(Dyn);
    if (count == 0 || count > 4096)
      return true;
    std::vector<Dyn> dyn(count);
    if (!ReadAt(fd, dyn.data(), count * sizeof(Dyn),
                static_cast<off_t>(p.p_offset))) {
      return true;
    }
    for (const Dyn &d : dyn) {
      if (d.d_tag == DT_NULL)
        break;
      if (d.d_tag == DT_FLAGS_1 && (d.d_un.d_val & DF_1_PIE) != 0)
        return false;
    }
    return true;
  }
  return true;
}

} // namespace

bool IsElfSharedObject(int fd) {
  unsigned char ident[EI_NIDENT];
  if (!ReadAt(fd, ident, sizeof ident, 0))
    return false;
  if (std::memcmp(ident, ELFMAG, SELFMAG) != 0)
    return false;
  if (ident[EI_DATA] != ELFDATA2LSB && ident[EI_DATA] != ELFDATA2MSB)
    return false;
  if (ident[EI_CLASS] == ELFCLASS64) {
    Elf64_Ehdr eh;
    if (!ReadAt(fd, &eh, sizeof eh, 0))
      return false;
    return IsSharedObject<Elf64_Ehdr, Elf64_Phdr, Elf64_Dyn>(fd, eh);
  }
  if (ident[EI_CLASS] == ELFCLASS32) {
    Elf32_Ehdr eh;
    if (!ReadAt(fd, &eh, sizeof eh, 0))
      return false;
    return IsSharedObject<Elf32_Ehdr, Elf32_Phdr, Elf32_Dyn>(fd, eh);
  }
  return false;
}

} // namespace aec::engine
