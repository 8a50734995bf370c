#include "notices.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utmp.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <vector>

namespace kxserv {
namespace {

std::string Printable(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    out += (c < 0x20 || c == 0x7f) ? '?' : static_cast<char>(c);
  }
  return out;
}

// ut_line names a device below /dev; anything that could leave it is not a
// terminal of a logged-in user.
bool SafeLine(const std::string& line) {
  return !line.empty() && line[0] != '/' &&
         line.find("..") == std::string::npos;
}

bool WriteAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

int NotifyTerminals(const std::string& utmp_file, const std::string& title,
                    const std::string& text) {
  std::ifstream in(utmp_file, std::ios::binary);
  if (!in) return 0;
  char stamp[64] = "";
  const std::time_t now = std::time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) != nullptr) {
    std::strftime(stamp, sizeof stamp, "%a %b %e %H:%M:%S %Y", &local);
  }
  const std::string notice =
      "\r\n\aNotice from the Korvex agent (" + std::string(stamp) +
      "):\r\n\r\n" + Printable(title) + "\r\n" + Printable(text) + "\r\n";
  int reached = 0;
  std::vector<std::string> done;
  struct utmp entry;
  while (in.read(reinterpret_cast<char*>(&entry), sizeof entry)) {
    if (entry.ut_type != USER_PROCESS) continue;
    const std::string line(entry.ut_line,
                           strnlen(entry.ut_line, sizeof entry.ut_line));
    if (!SafeLine(line)) continue;
    bool seen = false;
    for (const auto& d : done) seen |= d == line;
    if (seen) continue;
    done.push_back(line);
    const int fd = open(("/dev/" + line).c_str(),
                        O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) continue;
    struct stat info;
    if (fstat(fd, &info) == 0 && S_ISCHR(info.st_mode) &&
        WriteAll(fd, notice)) {
      ++reached;
    }
    close(fd);
  }
  return reached;
}

bool RecordStationBlock(const std::string& reason, bool now) {
  const std::string path = kBlockFile;
  const std::string temporary = path + ".new";
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << Printable(reason) << '\n' << (now ? "now" : "pending") << '\n';
    out.flush();
    if (!out) return false;
  }
  return std::rename(temporary.c_str(), path.c_str()) == 0;
}

bool ReadStationBlock(std::string* reason) {
  std::ifstream in(kBlockFile);
  if (!in) return false;
  std::getline(in, *reason);
  return true;
}

}  // namespace kxserv
