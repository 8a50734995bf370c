#include "tool_paths.h"

#include "aec_paths.h"
#include "aec_whitelist_file.h"

namespace aectool {

const std::string& RulesDir() { return aec::kRulesDir; }

const std::string& ConfigDir() { return aec::kConfigDir; }

const std::string& WhitelistPath() { return aec::WhitelistFilePath(); }

const std::string& ExceptionsPath() { return aec::kResourceExceptionPath; }

const std::string& IntegrityToolPath() {
  static const std::string path = aec::kInstallRoot + "/bin/kxaide";
  return path;
}

const std::string& IntegrityListPath() {
  static const std::string path = aec::kConfigDir + "crc-rule.conf";
  return path;
}

const std::string& IntegrityDbPath() {
  static const std::string path = aec::kConfigDir + "crc-rule.db";
  return path;
}

const std::string& IntegrityOutputPath() {
  static const std::string path = aec::kConfigDir + "crc-rule-out.db";
  return path;
}

const std::string& LoadedSetDir() {
  static const std::string path = aec::kInstallRoot + "/var/lib/aec/";
  return path;
}

const std::string& LoadedSetPath() {
  static const std::string path = LoadedSetDir() + "loaded-rules";
  return path;
}

}  // namespace aectool
