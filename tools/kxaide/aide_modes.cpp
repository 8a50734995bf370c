#include "kxaide/aide_modes.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <ostream>
#include <system_error>

#include "host/file_util.h"
#include "kxaide/checksum_db.h"
#include "kxaide/checksum_list.h"

namespace kxaide {

const char* const kOutputDb = "/opt/korvex/etc/aec/crc-rule-out.db";

namespace {

std::string DirName(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

const char* KindText(Difference::Kind kind) {
  switch (kind) {
    case Difference::kChanged:
      return "changed";
    case Difference::kAppeared:
      return "appeared";
    case Difference::kVanished:
      return "vanished";
  }
  return "changed";
}

ChecksumDb ReadDatabase(const std::string& db_path) {
  struct stat info;
  if (::stat(db_path.c_str(), &info) != 0) {
    throw AideError(kExitBadDatabase,
                    "no database " + db_path + ": " + std::strerror(errno));
  }
  if (!S_ISREG(info.st_mode)) {
    throw AideError(kExitBadDatabase,
                    "damaged database " + db_path + ": not a regular file");
  }
  std::ifstream in(db_path, std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(in)),
                         std::istreambuf_iterator<char>());
  if (!in.is_open() || in.bad()) {
    throw AideError(kExitBadDatabase, "cannot read the database " + db_path);
  }
  ChecksumDb db;
  std::string why;
  if (!ParseDb(text, &db, &why)) {
    throw AideError(kExitBadDatabase,
                    "damaged database " + db_path + ": " + why);
  }
  return db;
}

}  // namespace

void WriteDatabase(const std::string& list_path,
                   const std::string& output_path) {
  const ChecksumDb db = ComputeChecksums(ReadList(list_path));
  try {
    kxfs::ReplaceFile(output_path, FormatDb(db), DirName(output_path), 0644);
  } catch (const std::system_error& e) {
    throw AideError(kExitIo,
                    std::string("cannot write the database: ") + e.what());
  }
}

ExitCode CheckDatabase(const std::string& list_path, const std::string& db_path,
                       std::ostream& out, std::ostream& err) {
  // The list is read first: without it nothing can be compared, whatever
  // the database holds.
  const std::vector<std::string> entries = ReadList(list_path);
  const ChecksumDb sealed = ReadDatabase(db_path);
  const ChecksumDb now = ComputeChecksums(entries);
  const std::vector<Difference> differences = Compare(sealed, now);
  for (const auto& difference : differences) {
    out << PrintablePath(difference.path) << "\n";
    err << "kxaide: " << KindText(difference.kind) << ": "
        << PrintablePath(difference.path) << "\n";
  }
  out.flush();
  return differences.empty() ? kExitOk : kExitDifferences;
}

}  // namespace kxaide
