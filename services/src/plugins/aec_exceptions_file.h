// The resource exceptions file, /opt/korvex/etc/aec/resource-exception.conf:
// its one reader and its one writer, used by the exceptions policy, the
// "get" command and kxaecctl.
//
// A JSON object whose array "resource_list" holds the paths that execution
// control leaves alone; an empty list is written as "". Keys of the list's
// children are ignored, so an object of strings reads like an array.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <set>
#include <string>
#include <vector>

namespace aec {

// The values of "resource_list", in the file's order. A missing key raises
// boost::property_tree::ptree_bad_path.
std::vector<std::string> ExceptionsOf(const boost::property_tree::ptree& tree);

// Reads the file through ReadConfigFile (at most kMaxExceptionsFileBytes; a
// FIFO or other non-regular file is refused without blocking) and returns
// its paths in file order. Throws ConfigReadError (aec_config_read.h),
// boost::property_tree::json_parser_error or ptree_bad_path; what() of each
// says why, for the log.
std::vector<std::string> ReadExceptionsFile();

// Replaces the file atomically with `paths` (WriteJsonConfig's contract: a
// failure raises json_parser_error "write error" and keeps the old file).
void WriteExceptionsFile(const std::set<std::string>& paths);

}  // namespace aec
