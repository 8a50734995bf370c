#include "spool.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "host/ixml.h"
#include "lib/xml_document.h"
#include "log.h"
#include "requests.h"

namespace kxserv {
namespace {

namespace fs = boost::filesystem;

std::string Dir(const char* sub) { return std::string(kSpoolDir) + "/" + sub; }

// A free name in `dir` for `name`: the name itself, or name.1, name.2, ...
std::string FreeName(const std::string& dir, const std::string& name) {
  std::string candidate = dir + "/" + name;
  for (int n = 1; fs::exists(candidate) || fs::exists(candidate + ".reason");
       ++n) {
    candidate = dir + "/" + name + "." + std::to_string(n);
  }
  return candidate;
}

bool Apply(const kxhost::PluginEntryPoints& plugin, const std::string& text,
           std::string* why) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) {
    *why = "empty document";
    return false;
  }
  if (text[first] == '<') {
    boost::shared_ptr<kxhost::XmlDocument> document;
    try {
      document = kxhost::ParseXml(text);
    } catch (const std::runtime_error& e) {
      *why = std::string("malformed XML: ") + e.what();
      return false;
    }
    return SetPolicies(plugin, document, why);
  }
  if (text[first] == '{' || text[first] == '[') {
    return ImportPolicies(plugin, text, XMLParserBoost::CreateEmptyXML(), why);
  }
  *why = "neither an XML policies document nor a JSON import document";
  return false;
}

void Process(const kxhost::PluginEntryPoints& plugin, const fs::path& file) {
  const std::string name = file.filename().string();
  std::ifstream in(file.string(), std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  std::string why;
  bool ok = false;
  if (!in && !in.eof()) {
    why = "cannot read the document";
  } else {
    try {
      ok = Apply(plugin, text.str(), &why);
    } catch (const std::exception& e) {
      why = std::string("the plug-in threw: ") + e.what();
    }
  }
  const std::string target = FreeName(Dir(ok ? "done" : "failed"), name);
  boost::system::error_code error;
  fs::rename(file, target, error);
  if (error) {
    // Left in place it would be applied again at the next start; removing
    // it keeps "applied once", and the log says what happened.
    Log(LOG_ERR, "spool: cannot move " + name + " to " + target + ": " +
                     error.message() + "; removing it");
    fs::remove(file, error);
  }
  if (ok) {
    Log(LOG_INFO, "spool: applied " + name);
    return;
  }
  std::ofstream reason(target + ".reason", std::ios::trunc);
  reason << why << '\n';
  Log(LOG_ERR, "spool: " + name + " failed: " + why);
}

}  // namespace

int WatchSpool() {
  for (const char* sub : {"done", "failed"}) fs::create_directories(Dir(sub));
  const int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) {
    throw std::runtime_error(std::string("inotify_init1: ") +
                             std::strerror(errno));
  }
  if (inotify_add_watch(fd, kSpoolDir, IN_MOVED_TO) < 0) {
    const std::string reason = std::string("inotify_add_watch ") + kSpoolDir +
                               ": " + std::strerror(errno);
    close(fd);
    throw std::runtime_error(reason);
  }
  return fd;
}

bool SpoolEventsPending(int inotify_fd) {
  alignas(inotify_event) char buffer[8192];
  bool pending = false;
  for (;;) {
    const ssize_t n = read(inotify_fd, buffer, sizeof buffer);
    if (n <= 0) break;
    for (ssize_t at = 0; at < n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      if (event->mask & IN_Q_OVERFLOW) pending = true;
      if ((event->mask & IN_MOVED_TO) && event->len > 0 &&
          event->name[0] != '.') {
        pending = true;
      }
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
  return pending;
}

void DrainSpool(const kxhost::PluginEntryPoints& plugin) {
  std::vector<fs::path> waiting;
  boost::system::error_code error;
  for (fs::directory_iterator it(kSpoolDir, error), end; !error && it != end;
       it.increment(error)) {
    const std::string name = it->path().filename().string();
    if (name.empty() || name[0] == '.') continue;
    if (!fs::is_regular_file(it->symlink_status())) continue;
    waiting.push_back(it->path());
  }
  if (error) {
    Log(LOG_ERR, "spool: cannot list " + std::string(kSpoolDir) + ": " +
                     error.message());
  }
  std::sort(waiting.begin(), waiting.end());
  for (const auto& file : waiting) Process(plugin, file);
}

}  // namespace kxserv
