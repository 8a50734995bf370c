#include <mutex>
#include <string>
#include <vector>

#include "kxtest.h"
#include "lib/runtime.h"

namespace kxtest {
namespace {

// One store for all captures: the host has one observer.
struct Store {
  std::mutex mutex;
  std::vector<std::string> lines;
  int captures = 0;
};

Store& TheStore() {
  static Store store;
  return store;
}

}  // namespace

LogCapture::LogCapture() {
  {
    std::lock_guard<std::mutex> lock(TheStore().mutex);
    TheStore().lines.clear();
    ++TheStore().captures;
  }
  kxhost::SetLogObserver([](int, const std::string& line) {
    std::lock_guard<std::mutex> lock(TheStore().mutex);
    TheStore().lines.push_back(line);
  });
}

LogCapture::~LogCapture() {
  bool last = false;
  {
    std::lock_guard<std::mutex> lock(TheStore().mutex);
    last = --TheStore().captures == 0;
  }
  if (last) kxhost::SetLogObserver(nullptr);
}

std::vector<std::string> LogCapture::Lines() const {
  std::lock_guard<std::mutex> lock(TheStore().mutex);
  return TheStore().lines;
}

bool LogCapture::Contains(const std::string& text) const {
  for (const auto& line : Lines()) {
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}

void LogCapture::Clear() {
  std::lock_guard<std::mutex> lock(TheStore().mutex);
  TheStore().lines.clear();
}

}  // namespace kxtest
