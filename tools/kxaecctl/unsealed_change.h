// The record of a change of kxaecctl's own that is not sealed yet.
//
// A change writes configuration files and then seals them (integrity.h).
// When the seal fails (a full disk, kxaide failing), the files differ from
// the checksum database although nobody but the tool changed them; without
// a record the next change made with -C would call that an integrity
// violation (24), and keep doing so until someone reloads. So before a
// change writes anything the tool records which files it is about to write
// or remove (/opt/korvex/var/lib/aec/kxaecctl.unsealed), adds each written
// file's SHA-256 once it is written, and removes the record when a seal
// succeeds. The integrity check accepts exactly these differences (a
// recorded file with the recorded content; a recorded file whose content
// was not recorded, which is one the change removed or was about to write
// when it stopped), seals them, and still refuses any other difference.
// Only the tool, under its lock, reads or writes the record.
#pragma once

#include <string>
#include <vector>

namespace aectool {

// Records `paths` as about to change. Throws ToolError(kConfigWrite) when
// the record cannot be written: then no change may be made.
void RecordUnsealedChange(const std::vector<std::string>& paths);

// Adds the content (SHA-256) of each recorded path that exists now. A
// failure to rewrite the record leaves the previous record, which still
// names the paths; it is not reported.
void RecordUnsealedContent();

// Removes the record (after a successful seal). Ignores its absence.
void ForgetUnsealedChange();

// True when there is a record and every path in `differences` (kxaide's
// list of changed, new and vanished files) is one it accepts.
bool OnlyUnsealedChanges(const std::vector<std::string>& differences);

}  // namespace aectool
