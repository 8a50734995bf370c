// Writing the plug-in's JSON configuration files (whitelist, resource
// exceptions) whole and atomically.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <string>

namespace aec {

// Writes `tree` pretty-printed by the property tree's JSON writer to `path`,
// through a temporary file in `temp_dir` that is renamed over `path`, so a
// reader (the rule-control tool) sees either the old or the new content and a
// failed write keeps the old one. Any failure to write raises
// boost::property_tree::json_parser_error with the message "write error" and
// `path`, as the writer itself reports an unwritable file; the underlying
// reason goes to the Boost.Log trivial logger at severity error.
void WriteJsonConfig(const std::string& path,
                     const boost::property_tree::ptree& tree,
                     const std::string& temp_dir);

}  // namespace aec
