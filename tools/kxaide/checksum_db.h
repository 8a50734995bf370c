// The checksum database: which file had which SHA-256 when it was sealed.
//
// Text, one line per file, sorted by path (byte order), in the format of
// sha256sum(1):
//   <64 lowercase hex digits><two blanks><path>
// A path holding a backslash or a line break is written as sha256sum writes
// it: the line starts with a backslash and the path has "\\" for a backslash
// and "\n" for a line break. An empty database (no lines) is valid.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace kxaide {

// Path -> digest (hex). Ordered byte-wise, which is the database's order.
using ChecksumDb = std::map<std::string, std::string>;

std::string FormatDb(const ChecksumDb& db);

// Parses a database's text. False (with `why` set) for a damaged one: a
// line that is not in the format above, a path given twice, a relative path,
// or a last line without its line break.
bool ParseDb(const std::string& text, ChecksumDb* db, std::string* why);

// How a file differs between the sealed database and now.
struct Difference {
  enum Kind { kChanged, kAppeared, kVanished };
  std::string path;
  Kind kind;
};

// Every path whose digest differs, that is new, or that is gone; in path
// order.
std::vector<Difference> Compare(const ChecksumDb& sealed,
                                const ChecksumDb& now);

// A path as one output line: unchanged unless it holds a line break or a
// backslash, then escaped as in the database.
std::string PrintablePath(const std::string& path);

}  // namespace kxaide
