// The files kxaecctl works on, all under the install root "/opt/korvex".
// Functions, not globals: the plug-in's path constants they are built from
// live in other translation units, whose static initialisation may not have
// run yet when this one's does.
#pragma once

#include <string>

namespace aectool {

const std::string& RulesDir();             // /opt/korvex/etc/aec/rules/
const std::string& ConfigDir();            // /opt/korvex/etc/aec/
const std::string& WhitelistPath();        // .../white-list.config
const std::string& ExceptionsPath();       // .../resource-exception.conf
const std::string& IntegrityToolPath();    // /opt/korvex/bin/kxaide
const std::string& IntegrityListPath();    // .../crc-rule.conf
const std::string& IntegrityDbPath();      // .../crc-rule.db
const std::string& IntegrityOutputPath();  // .../crc-rule-out.db
const std::string& LoadedSetDir();         // /opt/korvex/var/lib/aec/
const std::string& LoadedSetPath();        // .../loaded-rules

}  // namespace aectool
