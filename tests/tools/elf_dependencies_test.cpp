// What a program loads, found as the dynamic loader finds it.
#include "kxaecctl/elf_dependencies.h"

#include <elf.h>
#include <limits.h>
#include <stdlib.h>

#include <cstring>
#include <string>

#include "tools_test_util.h"

namespace {

std::string Canonical(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) ? resolved : path;
}

bool HasFileNamed(const std::set<std::string>& paths, const std::string& name) {
  for (const auto& path : paths) {
    if (path.size() >= name.size() &&
        path.compare(path.size() - name.size(), name.size(), name) == 0) {
      return true;
    }
  }
  return false;
}

class ElfDependenciesTest : public toolstest::ToolsTest {};

}  // namespace

TEST_F(ElfDependenciesTest, AProgramNeedsItsInterpreterAndSharedLibraries) {
  const auto found = aectool::FindDependencies("/bin/true");
  EXPECT_TRUE(HasFileNamed(found.found, "/libc.so.6"));
  EXPECT_TRUE(HasFileNamed(found.found, "/ld-linux-x86-64.so.2") ||
              HasFileNamed(found.found, "/ld-linux-aarch64.so.1"));
  EXPECT_TRUE(found.unresolved.empty());
  // Canonical paths, and never the program itself.
  for (const auto& path : found.found) EXPECT_EQ(path, Canonical(path));
  EXPECT_EQ(found.found.count(Canonical("/bin/true")), 0u);
}

TEST_F(ElfDependenciesTest, DependenciesAreFollowedTransitively) {
  // The tool needs libkxhost.so (found through its RUNPATH), and only
  // libkxhost.so needs the directory client's libldap.
  const auto found = aectool::FindDependencies(KX_KXAECCTL_PATH);
  EXPECT_TRUE(HasFileNamed(found.found, "/libkxhost.so"));
  bool ldap = false;
  for (const auto& path : found.found) {
    ldap = ldap || path.find("/libldap-") != std::string::npos;
  }
  EXPECT_TRUE(ldap);
}

TEST_F(ElfDependenciesTest, AScriptNeedsItsInterpreter) {
  const std::string script = toolstest::kResourceDir + "script.sh";
  kxtest::WriteFile(script, "#!/bin/sh -e\necho hi\n", 0755);
  const auto found = aectool::FindDependencies(script);
  EXPECT_EQ(found.found.count(Canonical("/bin/sh")), 1u);
  EXPECT_TRUE(HasFileNamed(found.found, "/libc.so.6"));
}

TEST_F(ElfDependenciesTest, PlainAndMalformedFilesHaveNone) {
  const std::string text = toolstest::Resource("text");
  EXPECT_TRUE(aectool::FindDependencies(text).found.empty());
  // An ELF header that promises more than the file holds.
  const std::string truncated = toolstest::kResourceDir + "truncated";
  kxtest::WriteFile(truncated, std::string("\x7f"
                                           "ELF\x02\x01\x01",
                                           7) +
                                   std::string(40, '\xff'));
  EXPECT_TRUE(aectool::FindDependencies(truncated).found.empty());
  EXPECT_TRUE(aectool::FindDependencies("/kx/none").found.empty());
}

TEST_F(ElfDependenciesTest, SegmentsClaimingHugeSizesAreNotBelieved) {
  // A well-formed header whose interpreter and dynamic segments claim far
  // more than any file holds: nothing is allocated for them, nothing found.
  Elf64_Ehdr header{};
  std::memcpy(header.e_ident, ELFMAG, SELFMAG);
  header.e_ident[EI_CLASS] = ELFCLASS64;
  header.e_ident[EI_DATA] = ELFDATA2LSB;
  header.e_ident[EI_VERSION] = EV_CURRENT;
  header.e_type = ET_EXEC;
  header.e_machine = EM_X86_64;
  header.e_phoff = sizeof header;
  header.e_phentsize = sizeof(Elf64_Phdr);
  header.e_phnum = 2;
  Elf64_Phdr segments[2] = {};
  segments[0].p_type = PT_INTERP;
  segments[0].p_filesz = 1ull << 62;
  segments[1].p_type = PT_DYNAMIC;
  segments[1].p_filesz = 1ull << 62;
  std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
  bytes.append(reinterpret_cast<const char*>(segments), sizeof segments);
  const std::string path = toolstest::kResourceDir + "huge";
  kxtest::WriteFile(path, bytes, 0755);
  const auto found = aectool::FindDependencies(path);
  EXPECT_TRUE(found.found.empty());
  EXPECT_TRUE(found.unresolved.empty());
}

TEST_F(ElfDependenciesTest, ANeededLibraryThatIsNowhereIsReported) {
  // A copy of a real program with one needed name made unfindable (a name
  // of the same length, so that nothing in the file moves).
  std::string program = kxtest::ReadFile("/bin/true");
  const std::string from = "libc.so.6";
  const auto at = program.find(from);
  ASSERT_NE(at, std::string::npos);
  program.replace(at, from.size(), "libkxq.so");
  const std::string copy = toolstest::kResourceDir + "true-copy";
  kxtest::WriteFile(copy, program, 0755);
  const auto found = aectool::FindDependencies(copy);
  EXPECT_EQ(found.unresolved.count(copy + ": libkxq.so"), 1u);
}
