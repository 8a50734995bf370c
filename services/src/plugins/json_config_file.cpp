#include "json_config_file.h"

#include <syslog.h>

#include <boost/property_tree/json_parser.hpp>
#include <sstream>
#include <system_error>

#include "host/file_util.h"
#include "host/log.h"

namespace aec {

void WriteJsonConfig(const std::string& path,
                     const boost::property_tree::ptree& tree,
                     const std::string& temp_dir) {
  std::ostringstream text;
  boost::property_tree::write_json(text, tree, true);
  try {
    kxfs::ReplaceFile(path, text.str(), temp_dir, 0644);
  } catch (const std::system_error& e) {
    // Callers and their logs know the writer's own failure; keep the reason
    // (no space, read-only, ...) for whoever reads the host's log.
    log_trivial(LOG_ERR, "failed to write " + path + ": " + e.what());
    throw boost::property_tree::json_parser_error("write error", path, 0);
  }
}

}  // namespace aec
