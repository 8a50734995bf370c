// Shared pieces of the console journal tests: a scratch directory with a
// journal built by the engine's schema, and rows to fill it with.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "journal_generator.h"
#include "journal_query.h"

namespace console_journal_test {

// A row of event `event_id` at `time` (seconds) with a framed object.
kxjournal::JournalRow Row(int event_id, int64_t time,
                          const std::string& program = "/usr/bin/make",
                          const std::string& object = "/usr/bin/make",
                          const std::string& user = "alice",
                          const std::string& group = "staff", int success = 0);

// The ids of `page`'s rows, in order.
std::vector<int64_t> Ids(const kxconsole::JournalPage& page);

class ConsoleJournalTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Writes `rows` (ids 1, 2, ... in order) to journal_ with exactly the
  // indexes the engine's writer creates.
  void Build(const std::vector<kxjournal::JournalRow>& rows);
  // QueryJournal on journal_; fails the test on JournalError.
  kxconsole::JournalPage Query(const kxconsole::JournalFilter& filter);
  // Every matching row, one page of 500.
  std::vector<int64_t> MatchingIds(kxconsole::JournalFilter filter);
  // The message of the JournalError that QueryJournal throws, or "" when
  // it throws none.
  std::string QueryError(const kxconsole::JournalFilter& filter);

  std::string dir_;
  std::string journal_;
};

}  // namespace console_journal_test
