#include "writer_fixture.h"

#include <thread>

namespace engine_journal_test {

std::function<void(int, const std::string&)> WriterLog::Sink() {
  auto store = store_;
  return [store](int, const std::string& line) {
    std::lock_guard<std::mutex> lock(store->mutex);
    store->lines.push_back(line);
  };
}

std::vector<std::string> WriterLog::Lines() const {
  std::lock_guard<std::mutex> lock(store_->mutex);
  return store_->lines;
}

bool WriterLog::Contains(const std::string& text) const {
  for (const auto& line : Lines()) {
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}

bool WaitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

JournalEvent Event(int event_id, const std::string& app,
                   const std::string& object, const std::string& user,
                   const std::string& group, int success, int64_t time) {
  return JournalEvent{time, event_id, success, app, object, user, group};
}

std::string QueryOne(const std::string& path, const std::string& sql) {
  const auto rows = journal_test::PlainQuery(path, sql);
  if (rows.empty() || rows[0].empty()) return "<no row>";
  return rows[0][0];
}

long long CountRows(const std::string& path) {
  return std::stoll(QueryOne(path, "SELECT count(*) FROM logs"));
}

}  // namespace engine_journal_test
