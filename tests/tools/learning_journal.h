// A journal for the learning commands' tests: the engine's own schema at
// the sandbox's /opt/korvex/var/log/audit_logs.db, rows as the engine
// writes them (objects framed).
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <optional>
#include <string>

#include "tools_test_util.h"

namespace toolstest {

inline const std::string kJournal = "/opt/korvex/var/log/audit_logs.db";

struct Row {
  int event_id = 1051;
  std::int64_t date_time = 1000;
  std::optional<std::string> app;
  std::optional<std::string> object;  // unframed; framed when written
  std::optional<std::string> username;
  std::optional<std::string> groupname;
  int success = 0;
};

class TestJournal {
 public:
  TestJournal();  // creates the journal with the engine's schema
  ~TestJournal();
  TestJournal(const TestJournal&) = delete;
  TestJournal& operator=(const TestJournal&) = delete;
  void Add(const Row& row);
  // Holds the write lock until Unlock (a writer in mid-transaction).
  void Lock();
  void Unlock();

 private:
  sqlite3* db_ = nullptr;
};

// A sealed sandbox with a journal and two real ELF files among the
// resources: a program (`tool_`) and a shared object (`lib_`).
class LearningTest : public ToolsTest {
 protected:
  void SetUp() override;

  TestJournal journal_;
  std::string res_, tool_, lib_;
};

}  // namespace toolstest
