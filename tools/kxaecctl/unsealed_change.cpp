#include "unsealed_change.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>
#include <system_error>

#include "host/file_util.h"
#include "kxaide/sha256_file.h"
#include "tool_error.h"
#include "tool_paths.h"

namespace aectool {
namespace {

// Written in place of a digest while the content is not known yet.
constexpr const char* kUnknownContent = "-";

const std::string& RecordPath() {
  static const std::string path = LoadedSetDir() + "kxaecctl.unsealed";
  return path;
}

bool Exists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

// Path -> digest or kUnknownContent. A line is "<digest> <path>".
std::map<std::string, std::string> ReadRecord() {
  std::map<std::string, std::string> record;
  std::ifstream in(RecordPath());
  std::string line;
  while (std::getline(in, line)) {
    const auto blank = line.find(' ');
    if (blank == std::string::npos) continue;
    record[line.substr(blank + 1)] = line.substr(0, blank);
  }
  return record;
}

void WriteRecord(const std::map<std::string, std::string>& record) {
  std::ostringstream text;
  for (const auto& entry : record) {
    text << entry.second << ' ' << entry.first << '\n';
  }
  kxfs::ReplaceFile(RecordPath(), text.str(), LoadedSetDir(), 0600);
}

std::string DigestOrUnknown(const std::string& path) {
  try {
    return kxaide::Sha256File(path);
  } catch (const std::exception&) {
    return kUnknownContent;
  }
}

}  // namespace

void RecordUnsealedChange(const std::vector<std::string>& paths) {
  // A record left by an earlier failed seal still counts: its files are
  // not sealed either.
  std::map<std::string, std::string> record = ReadRecord();
  for (const auto& path : paths) record[path] = kUnknownContent;
  try {
    WriteRecord(record);
  } catch (const std::system_error& e) {
    throw ToolError(Exit::kConfigWrite,
                    "cannot record the change in " + RecordPath() + ": " +
                        e.what());
  }
}

void RecordUnsealedContent() {
  std::map<std::string, std::string> record = ReadRecord();
  for (auto& entry : record) {
    if (Exists(entry.first)) entry.second = DigestOrUnknown(entry.first);
  }
  try {
    WriteRecord(record);
  } catch (const std::system_error&) {
    // The previous record stays and still names every path.
  }
}

void ForgetUnsealedChange() { ::unlink(RecordPath().c_str()); }

bool OnlyUnsealedChanges(const std::vector<std::string>& differences) {
  if (!Exists(RecordPath())) return false;
  const std::map<std::string, std::string> record = ReadRecord();
  for (const auto& path : differences) {
    const auto found = record.find(path);
    if (found == record.end()) return false;
    if (found->second == kUnknownContent) continue;
    if (!Exists(path) || DigestOrUnknown(path) != found->second) return false;
  }
  return true;
}

}  // namespace aectool
