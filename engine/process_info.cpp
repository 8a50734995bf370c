#include "process_info.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

namespace aec::engine {

namespace {

bool ParseId(const std::string &word, std::uint32_t *id) {
  if (word.empty() || word.size() > 10)
    return false;
  char *end = nullptr;
  const unsigned long long value = std::strtoull(word.c_str(), &end, 10);
  if (*end != '\0' || value > 0xFFFFFFFFull)
    return false;
  *id = static_cast<std::uint32_t>(value);
  return true;
}

} // namespace

bool ParseProcessStatus(const std::string &text, ProcessIdentity *identity) {
  bool have_uid = false, have_gid = false;
  ProcessIdentity out;
  std::vector<std::uint32_t> groups;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    const auto colon = line.find(':');
    if (colon == std::string::npos)
      continue;
    const std::string key = line.substr(0, colon);
    if (key != "Uid" && key != "Gid" && key != "Groups")
      continue;
    std::istringstream words(line.substr(colon + 1));
    std::string word;
    if (key == "Groups") {
      while (words >> word) {
        std::uint32_t id;
        if (!ParseId(word, &id))
          return false;
        groups.push_back(id);
      }
      continue;
    }
    // The first of the four ids (real, effective, saved, file system).
    std::uint32_t id;
    if (!(words >> word) || !ParseId(word, &id))
      return false;
    if (key == "Uid") {
      out.uid = id;
      have_uid = true;
    } else {
      out.gids.insert(out.gids.begin(), id);
      have_gid = true;
    }
  }
  if (!have_uid || !have_gid)
    return false;
  for (std::uint32_t g : groups) {
    if (g != out.gids.front())
      out.gids.push_back(g);
  }
  *identity = std::move(out);
  return true;
}

bool ReadProcessIdentity(pid_t pid, ProcessIdentity *identity,
                         const std::string &proc_root) {
  const std::string path = proc_root + "/" + std::to_string(pid) + "/status";
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return false;
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got <= 0)
      break;
    text.append(buffer, static_cast<size_t>(got));
  }
  close(fd);
  return ParseProcessStatus(text, identity);
}

std::string ProcessProgram(pid_t pid) {
  const std::string link = "/proc/" + std::to_string(pid) + "/exe";
  char buffer[4096];
  const ssize_t got = readlink(link.c_str(), buffer, sizeof buffer);
  if (got <= 0 || static_cast<size_t>(got) >= sizeof buffer)
    return std::string();
  return std::string(buffer, static_cast<size_t>(got));
}

} // namespace aec::engine
