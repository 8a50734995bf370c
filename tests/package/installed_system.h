// What the tests look at in an installed korvex-aec: the paths, the
// installed programs, and the state an administrator builds up (rules,
// whitelist, settings, confirmation) that upgrades must keep.
#pragma once

#include <string>
#include <vector>

#include "package_sandbox.h"

namespace pkgtest {

constexpr const char* kRoot = "/opt/korvex";
constexpr const char* kKxhost = "/opt/korvex/bin/kxhost";
constexpr const char* kKxaecctl = "/opt/korvex/bin/kxaecctl";
constexpr const char* kKxaide = "/opt/korvex/bin/kxaide";
constexpr const char* kConfigDir = "/opt/korvex/etc/aec";
constexpr const char* kWhitelist = "/opt/korvex/etc/aec/white-list.config";
constexpr const char* kCrcList = "/opt/korvex/etc/aec/crc-rule.conf";
constexpr const char* kCrcDb = "/opt/korvex/etc/aec/crc-rule.db";
constexpr const char* kConfirmState = "/opt/korvex/var/aec_confirm";
constexpr const char* kPostinst = "/var/lib/dpkg/info/korvex-aec.postinst";
// The apt hook (a conffile) and the command it runs.
constexpr const char* kAptHook = "/etc/apt/apt.conf.d/80korvex-aec-baseline";
constexpr const char* kBaselineRefresh =
    "/opt/korvex/libexec/kxaec-baseline-refresh";

// The whitelist a fresh installation has.
extern const char* const kEmptyWhitelist;

std::string ReadFile(const std::string& path);  // throws if unreadable
void WriteFile(const std::string& path, const std::string& content);
bool Exists(const std::string& path);  // lstat: dangling links count

// Seals in force match the files ("kxaide -k" finds no difference).
RunResult CheckSeal();

// Every row of every table in the settings databases (kx.db and the
// attached kx_settings.db), one text per row ("schema.table|col|col..."),
// sorted. Throws if the databases cannot be read.
std::vector<std::string> SettingsRows();

// Builds up an administrator's state with the installed programs: the
// plug-in's default settings (kxhost info), a network setting, a rule and
// a whitelisted user through kxaecctl with its integrity check (-C), and
// a hard-mode confirmation state. Returns "" or what failed.
std::string SeedAdministratorState();

// The plug-in's answer to status_confirmation, through the installed
// kxhost; `scratch` is a file outside /opt/korvex for the request.
RunResult StatusConfirmation(const std::string& scratch);

}  // namespace pkgtest
