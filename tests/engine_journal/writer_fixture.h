// Shared pieces of the journal writer tests: a writer on the sandboxed
// journal, its log lines, and waiting for it.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "journal_fixture.h"
#include "journal_writer.h"

namespace engine_journal_test {

using aec::engine::JournalEvent;
using aec::engine::JournalWriter;

// The log lines a writer produced, safe to read while it runs.
class WriterLog {
 public:
  std::function<void(int, const std::string&)> Sink();
  std::vector<std::string> Lines() const;
  bool Contains(const std::string& text) const;

 private:
  struct Store {
    mutable std::mutex mutex;
    std::vector<std::string> lines;
  };
  std::shared_ptr<Store> store_ = std::make_shared<Store>();
};

// Polls `done` every few milliseconds; false when `limit` passed first.
bool WaitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds limit = std::chrono::seconds(20));

JournalEvent Event(int event_id, const std::string& app,
                   const std::string& object, const std::string& user = "alice",
                   const std::string& group = "staff", int success = 0,
                   int64_t time = 1000);

// One column of the first row of `sql` on the journal at `path`.
std::string QueryOne(const std::string& path, const std::string& sql);
long long CountRows(const std::string& path);

class WriterTest : public journal_test::JournalTest {
 protected:
  JournalWriter::Options OptionsFor(const std::string& path) {
    JournalWriter::Options options;
    options.path = path;
    options.flush_interval = std::chrono::milliseconds(5);
    options.reopen_interval = std::chrono::milliseconds(20);
    options.log = log_lines_.Sink();
    return options;
  }
  WriterLog log_lines_;
};

}  // namespace engine_journal_test
