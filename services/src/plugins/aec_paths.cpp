#include "aec_paths.h"

namespace aec {

// Built by plain concatenation, in this order, at static initialisation.
const std::string kInstallRoot = "/opt/korvex";
const std::string kMainDbPath = kInstallRoot + "/usr/db/kx.db";
const std::string kSettingsDbPath = kInstallRoot + "/usr/db/kx_settings.db";
const std::string kAuditDbPath = kInstallRoot + "/var/log/audit_logs.db";
const std::string kAuthPoliciesDir = kInstallRoot + "/etc/auth_policies";
const std::string kToolPath = kInstallRoot + "/bin/kxaecctl";
const std::string kConfigDir = kInstallRoot + "/etc/aec/";
const std::string kRulesDir = kConfigDir + "rules/";
const std::string kResourceExceptionPath = kConfigDir + "resource-exception.conf";
const std::string kPamMessagesDir = kInstallRoot + "/var/tmp/pam_messages/";
const std::string kRemovalDir = kInstallRoot + "/var/tmp/rm/";
const std::string kNetworkCachePath =
    kInstallRoot + "/var/cache/kxnetwork/network_cache.json";

const std::string kPolicySourceLocal = "local";
const std::string kPolicySourceDorvi = "dorvi";
const std::string kPolicySourceYunko = "yunko";

const std::string kResultOk = "1";
const std::string kResultFailed = "0";

}  // namespace aec
