// What a fresh installation of the agent holds, made in one place.
//
// The package's postinst runs `kxhost seed` on the real /opt/korvex, and
// `kxhost --root DIR` seeds a new sandboxed root the same way, so it starts
// exactly like a new installation: the directories,
// an empty whitelist (the plug-in refuses to start without one), the
// integrity tool's list, and the checksum database sealed over them (the
// rule-control tool refuses checked changes without it).
//
// Everything is made only where it is missing: an upgrade, a reinstall or a
// second kxhost run keeps the rules, the whitelist, the list and the seal
// exactly as they are. Files are written beside their place and renamed
// into it, so an interrupted run never leaves half a file that the next run
// would keep. Failures throw std::runtime_error naming the step.
#pragma once

#include <string>

#include "internal_api.h"

namespace kxhost {

// Makes the directories of an installation below `dir`: bin, etc/aec/rules,
// usr/db, var/log, var/tmp/rm, var/tmp/pam_messages, var/cache/kxnetwork,
// var/export (where exports may go inside the installation).
KX_HOST_INTERNAL void MakeInstallLayout(const std::string& dir);

// MakeInstallLayout plus, where missing, etc/aec/white-list.config with
// empty user and group lists and etc/aec/crc-rule.conf naming the protected
// configuration. `dir` is the root as this process sees it. True when it
// wrote either file (the root's configuration is new).
KX_HOST_INTERNAL bool SeedFreshInstall(const std::string& dir);

// Seals the root mounted at /opt/korvex now: runs
// /opt/korvex/bin/kxaide -i -c /opt/korvex/etc/aec/crc-rule.conf and renames
// its output to crc-rule.db. An existing crc-rule.db is the administrator's
// seal and is left alone, even when it no longer matches (kxaecctl reports
// that; seeding must not hide it). Returns true when it sealed; false when a
// seal existed or no kxaide is installed (a root without the tools has
// nothing that checks a seal). Throws when kxaide fails or the rename does.
// Must be called before the process starts threads (it forks).
KX_HOST_INTERNAL bool SealFreshInstall();

}  // namespace kxhost
