// kxaide's two modes, as functions of their paths.
#pragma once

#include <iosfwd>
#include <string>

#include "kxaide/aide_error.h"

namespace kxaide {

// Where the index mode writes, and where its temporary file goes (the same
// directory, never the rules directory that the list names).
extern const char* const kOutputDb;  // "/opt/korvex/etc/aec/crc-rule-out.db"

// Index mode (-i -c LIST): checksums what `list_path` names and replaces
// `output_path` with the database. Throws AideError (kExitBadList, kExitIo).
void WriteDatabase(const std::string& list_path,
                   const std::string& output_path);

// Check mode (-k -c LIST -d DB): compares what `list_path` names now with
// the database at `db_path`. Writes one path per line to `out` for every
// file that changed, appeared or vanished, and a line saying which to `err`.
// Returns kExitOk or kExitDifferences. Throws AideError (kExitBadList,
// kExitBadDatabase for a missing or damaged database, kExitIo).
ExitCode CheckDatabase(const std::string& list_path, const std::string& db_path,
                       std::ostream& out, std::ostream& err);

}  // namespace kxaide
