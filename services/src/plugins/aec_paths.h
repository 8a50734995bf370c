// File-system locations of the plug-in, all under the install root.
//
// The root is fixed at "/opt/korvex" on purpose: nothing (environment,
// configuration) may move it. Tests run the plug-in in a private mount
// namespace where a scratch directory is mounted at that path.
#pragma once

#include <string>

namespace aec {

extern const std::string kInstallRoot;         // "/opt/korvex"
extern const std::string kMainDbPath;          // root + "/usr/db/kx.db"
extern const std::string kSettingsDbPath;      // root + "/usr/db/kx_settings.db"
extern const std::string kAuditDbPath;         // root + "/var/log/audit_logs.db"
extern const std::string kAuthPoliciesDir;     // root + "/etc/auth_policies"
extern const std::string kToolPath;            // root + "/bin/kxaecctl"
extern const std::string kConfigDir;           // root + "/etc/aec/"
extern const std::string kRulesDir;            // config dir + "rules/"
extern const std::string kResourceExceptionPath;  // config dir + "resource-exception.conf"
extern const std::string kPamMessagesDir;      // root + "/var/tmp/pam_messages/"
extern const std::string kRemovalDir;          // root + "/var/tmp/rm/"
extern const std::string kNetworkCachePath;    // root + "/var/cache/kxnetwork/network_cache.json"

// The names of the three policy sources.
extern const std::string kPolicySourceLocal;   // "local"
extern const std::string kPolicySourceDorvi;   // "dorvi"
extern const std::string kPolicySourceYunko;   // "yunko"

// The two values of a reply's "result" field.
extern const std::string kResultOk;     // "1"
extern const std::string kResultFailed; // "0"

}  // namespace aec
