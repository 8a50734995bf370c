// The two steps that finish every change of the rule configuration.
//
// reload_rules has the rule-control tool load the rule files into the kernel
// component ("/opt/korvex/bin/kxaecctl reload -C -v"); recalc_common_crc has
// the integrity tool recompute the checksum database of the configuration
// files after the plug-in rewrote one of them. Both block until their tool
// has ended, report failure by their result and a debug log line, and hold
// no state.
#pragma once

namespace aec {

// False only when the tool could not be started. A tool that runs and exits
// non-zero still gives true: callers that need its verdict run their own
// KxAecCtl. Exceptions other than PluginException (a length error on the
// tool's output) pass to the caller.
bool reload_rules();

// Runs "/opt/korvex/bin/kxaide -i -c /opt/korvex/etc/aec/crc-rule.conf" and,
// when it succeeds, renames crc-rule-out.db over crc-rule.db. False when the
// tool fails or the rename does; the database in force is then untouched.
// Never throws.
bool recalc_common_crc();

}  // namespace aec
