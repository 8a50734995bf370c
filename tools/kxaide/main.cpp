// kxaide: the integrity tool. Keeps the SHA-256 checksums of the rule
// configuration files and tells which of them changed since.
//
//   kxaide -i -c LIST          write /opt/korvex/etc/aec/crc-rule-out.db
//   kxaide -k -c LIST -d DB    compare with DB; changed files on stdout
//
// docs/tools.md describes the list, the database and the exit codes.
#include <iostream>
#include <string>
#include <vector>

#include "kxaide/aide_error.h"
#include "kxaide/aide_modes.h"

namespace {

constexpr const char* kUsage =
    "Usage: kxaide -i -c LIST\n"
    "       kxaide -k -c LIST -d DB\n"
    "\n"
    "  -i        index: checksum (SHA-256) every file LIST names and write\n"
    "            the database /opt/korvex/etc/aec/crc-rule-out.db\n"
    "  -k        check: compare the files LIST names with the database DB;\n"
    "            print each file that changed, appeared or vanished on its\n"
    "            own line\n"
    "  -c LIST   the list: one absolute path per line, a directory standing\n"
    "            for every regular file in it, \"#\" starting a comment\n"
    "  -d DB     the database to compare with (check mode)\n"
    "  --help    this text\n"
    "\n"
    "Database lines: \"<sha256>  <path>\", sorted by path (as sha256sum).\n"
    "Exit codes: 0 done (check: nothing differs), 1 check: files differ,\n"
    "2 bad command line, 3 list missing or malformed, 4 database missing\n"
    "or damaged, 5 a file cannot be read or the database not written.\n";

struct CommandLine {
  bool index = false;
  bool check = false;
  std::string list;
  std::string db;
};

// Throws AideError(kExitUsage).
CommandLine Parse(const std::vector<std::string>& args) {
  CommandLine line;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= args.size()) {
        throw kxaide::AideError(kxaide::kExitUsage, arg + " needs a value");
      }
      return args[++i];
    };
    if (arg == "-i") {
      line.index = true;
    } else if (arg == "-k") {
      line.check = true;
    } else if (arg == "-c") {
      line.list = value();
    } else if (arg == "-d") {
      line.db = value();
    } else {
      throw kxaide::AideError(kxaide::kExitUsage, "unknown argument " + arg);
    }
  }
  if (line.index == line.check) {
    throw kxaide::AideError(kxaide::kExitUsage, "give exactly one of -i, -k");
  }
  if (line.list.empty()) {
    throw kxaide::AideError(kxaide::kExitUsage, "-c LIST is required");
  }
  if (line.check && line.db.empty()) {
    throw kxaide::AideError(kxaide::kExitUsage, "-k needs -d DB");
  }
  if (line.index && !line.db.empty()) {
    throw kxaide::AideError(kxaide::kExitUsage, "-d belongs to -k");
  }
  return line;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 1 && args[0] == "--help") {
    std::cout << kUsage;
    return kxaide::kExitOk;
  }
  try {
    const CommandLine line = Parse(args);
    if (line.index) {
      kxaide::WriteDatabase(line.list, kxaide::kOutputDb);
      return kxaide::kExitOk;
    }
    return kxaide::CheckDatabase(line.list, line.db, std::cout, std::cerr);
  } catch (const kxaide::AideError& e) {
    std::cerr << "kxaide: " << e.what() << "\n";
    if (e.code() == kxaide::kExitUsage) std::cerr << kUsage;
    return e.code();
  }
}
