#include "aec_helper.h"

#include <boost/filesystem.hpp>
#include <string>
#include <vector>

#include "aec_log.h"
#include "aec_paths.h"
#include "host/errors.h"
#include "host/tty_helpers.h"
#include "kxaecctl.h"

namespace {

constexpr const char* kLogFile = "aec_helper";

// Built on first use: the root constants live in another translation unit,
// whose static initialisation may not have run yet when this one's does.
struct IntegrityPaths {
  std::string tool = aec::kInstallRoot + "/bin/kxaide";
  std::string config = aec::kConfigDir + "crc-rule.conf";
  std::string output_db = aec::kConfigDir + "crc-rule-out.db";
  std::string db = aec::kConfigDir + "crc-rule.db";
};

const IntegrityPaths& Paths() {
  static const IntegrityPaths paths;
  return paths;
}

}  // namespace

namespace aec {

bool reload_rules() {
  KxAecCtl tool("reload", true);
  try {
    // The tool's verdict is deliberately not looked at here: a reload that
    // the tool refuses still counts as done.
    tool.Apply();
  } catch (const PluginException& e) {
    AEC_LOG(kLogFile, 7, "[%d] %s: failed to reload AEC rules: %s", e.what());
    return false;
  }
  return true;
}

bool recalc_common_crc() {
  std::string program = Paths().tool;
  std::string index_option = "-i";
  std::string config_option = "-c";
  std::string config = Paths().config;
  const std::vector<char*> argv = {&program[0], &index_option[0],
                                   &config_option[0], &config[0], nullptr};
  if (TtyHelpers(TtyHelpers::kDiscardOutput).ExecCommand(argv) != 0) {
    AEC_LOG(kLogFile, 7,
            "[%d] %s: failed to recalculate checksum of the rules");
    return false;
  }
  // One rename: the database in force is either the old or the new one.
  boost::system::error_code error;
  boost::filesystem::rename(Paths().output_db, Paths().db, error);
  if (error) {
    AEC_LOG(kLogFile, 7, "[%d] %s: failed to rename output db");
    return false;
  }
  return true;
}

}  // namespace aec
