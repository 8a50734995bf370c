// The integrity of the configuration, kept by kxaide in crc-rule.db.
//
// kxaecctl is one of the configuration's legitimate writers: before a
// change made with -C it checks that the files are as they were sealed, and
// after every change it seals them anew (as the plug-in does after writing
// the policy sources itself).
#pragma once

#include <string>
#include <vector>

namespace aectool {

// Runs "kxaide -k -c crc-rule.conf -d crc-rule.db". Differences that are
// all the tool's own unsealed change (unsealed_change.h) are no violation:
// they are sealed (a failing seal is noted on standard error) and the check
// passes. Otherwise throws ToolError:
//  - kIntegrityDbUpdate with every changed, new or vanished file as an
//    object;
//  - kIntegrityViolation when the database is missing or damaged;
//  - kIntegrityCalculation when kxaide cannot run or fails otherwise (for
//    instance without crc-rule.conf).
void CheckIntegrity();

// The same check for reload -C, which accepts what it finds: the files that
// differ (or a note that there is no usable database) go to standard error
// instead of failing. Throws nothing for a failing check.
void ReportIntegrity();

// Runs "kxaide -i -c crc-rule.conf" and moves crc-rule-out.db over
// crc-rule.db, then forgets any unsealed change. Throws
// ToolError(kIntegrityCalculation) when either step fails; the database in
// force is then the previous one.
void Seal();

}  // namespace aectool
