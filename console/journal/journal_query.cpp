#include "journal_query.h"

#include "journal_connection.h"
#include "journal_filter.h"
#include "journal_statements.h"

namespace kxconsole {

namespace {

using detail::JournalConnection;
using detail::Statement;
using detail::WhereClause;

constexpr std::chrono::milliseconds kQueryBudget{kQueryBudgetMs};

int64_t Count(JournalConnection& connection, const WhereClause& where) {
  Statement count = connection.Prepare(detail::CountSql(where), where.values);
  if (!count.Step()) connection.Fail("cannot count the rows of");
  return count.Int(0);
}

}  // namespace

JournalPage QueryJournal(const std::string& db_path,
                         const JournalFilter& filter) {
  detail::CheckFilter(filter);
  detail::CheckPaging(filter);
  const WhereClause where = detail::BuildWhere(filter);
  JournalPage page;
  JournalConnection connection(db_path, kQueryBudget);
  if (connection.missing()) {
    page.missing = true;
    return page;
  }
  connection.BeginRead();
  page.total = Count(connection, where);
  const int64_t offset =
      static_cast<int64_t>(filter.page - 1) * filter.per_page;
  if (offset >= page.total) return page;
  // Paged by offset: the page shows page numbers and a total and may jump to
  // any page without knowing the one before, and people rarely go deep (a
  // deep page costs a walk over the rows before it, within the budget).
  Statement rows = connection.Prepare(
      detail::PageSql(where),
      detail::Append(where.values, {int64_t{filter.per_page}, offset}));
  page.rows.reserve(static_cast<size_t>(filter.per_page));
  while (rows.Step()) page.rows.push_back(detail::ReadRow(rows));
  return page;
}

int64_t CountDenials(const std::string& db_path, int64_t since, int64_t until) {
  JournalFilter filter;
  filter.since = since;
  filter.until = until;
  filter.outcome = "denied";
  detail::CheckFilter(filter);
  JournalConnection connection(db_path, kQueryBudget);
  if (connection.missing()) return 0;
  return Count(connection, detail::BuildWhere(filter));
}

}  // namespace kxconsole
