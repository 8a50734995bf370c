// The CSV export with its limits as parameters (WriteJournalCsv passes
// kCsvRowCap and kCsvBudgetMs), so that the limits can be tested on a small
// journal.
#pragma once

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

#include "journal_query.h"

namespace kxconsole::detail {

void WriteCsv(const std::string& db_path, const JournalFilter& filter,
              std::ostream& out, int64_t row_cap,
              std::chrono::milliseconds budget);

}  // namespace kxconsole::detail
