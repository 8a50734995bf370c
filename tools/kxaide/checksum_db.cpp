#include "kxaide/checksum_db.h"

#include <cstddef>

#include "host/line_escape.h"

namespace kxaide {
namespace {

constexpr std::size_t kDigestLength = 64;

// The checksum list's own set: only backslash and line break are escaped.
constexpr const char* kPathSpecials = "\\\n";

bool NeedsEscape(const std::string& path) {
  return path.find_first_of(kPathSpecials) != std::string::npos;
}

std::string Escape(const std::string& path) {
  return kxtext::EscapeLine(path, kPathSpecials);
}

bool Unescape(const std::string& text, std::string* path) {
  return kxtext::UnescapeLine(text, path, kPathSpecials);
}

bool IsLowerHex(const std::string& text) {
  for (char c : text) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

}  // namespace

std::string FormatDb(const ChecksumDb& db) {
  std::string text;
  for (const auto& [path, digest] : db) {
    if (NeedsEscape(path)) {
      text += "\\" + digest + "  " + Escape(path) + "\n";
    } else {
      text += digest + "  " + path + "\n";
    }
  }
  return text;
}

bool ParseDb(const std::string& text, ChecksumDb* db, std::string* why) {
  db->clear();
  std::size_t start = 0;
  int number = 0;
  while (start < text.size()) {
    ++number;
    const std::size_t end = text.find('\n', start);
    const std::string where = "line " + std::to_string(number);
    if (end == std::string::npos) {
      *why = where + ": no line break at the end";
      return false;
    }
    std::string line = text.substr(start, end - start);
    start = end + 1;
    const bool escaped = !line.empty() && line[0] == '\\';
    if (escaped) line.erase(0, 1);
    if (line.size() < kDigestLength + 3 ||
        !IsLowerHex(line.substr(0, kDigestLength)) ||
        line.compare(kDigestLength, 2, "  ") != 0) {
      *why = where + ": not \"<sha256>  <path>\"";
      return false;
    }
    std::string path = line.substr(kDigestLength + 2);
    if (escaped && !Unescape(line.substr(kDigestLength + 2), &path)) {
      *why = where + ": bad escape in the path";
      return false;
    }
    if (path[0] != '/') {
      *why = where + ": relative path";
      return false;
    }
    if (!db->emplace(path, line.substr(0, kDigestLength)).second) {
      *why = where + ": " + PrintablePath(path) + " listed twice";
      return false;
    }
  }
  return true;
}

std::vector<Difference> Compare(const ChecksumDb& sealed,
                                const ChecksumDb& now) {
  std::vector<Difference> out;
  auto old_it = sealed.begin();
  auto new_it = now.begin();
  // Both maps are in path order: one merge walk.
  while (old_it != sealed.end() || new_it != now.end()) {
    if (new_it == now.end() ||
        (old_it != sealed.end() && old_it->first < new_it->first)) {
      out.push_back({old_it->first, Difference::kVanished});
      ++old_it;
    } else if (old_it == sealed.end() || new_it->first < old_it->first) {
      out.push_back({new_it->first, Difference::kAppeared});
      ++new_it;
    } else {
      if (old_it->second != new_it->second) {
        out.push_back({old_it->first, Difference::kChanged});
      }
      ++old_it;
      ++new_it;
    }
  }
  return out;
}

std::string PrintablePath(const std::string& path) {
  return NeedsEscape(path) ? Escape(path) : path;
}

}  // namespace kxaide
