// The whitelist file, /opt/korvex/etc/aec/white-list.config, and its
// centralized-control switch: the model the plug-in's AECWhiteList and
// kxaecctl share.
//
// A JSON object with the arrays "user_list" and "group_list" (an empty list
// is written as ""). The whitelist is under centralized control while the
// host's AecPolicySources holds a whitelist source that is neither empty
// nor "local"; then only the policy may change it.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <string>

#include "users_and_groups.h"

namespace aec {

const std::string& WhitelistFilePath();

// The element values of "user_list" and "group_list", in document order; a
// missing key raises boost::property_tree::ptree_bad_path.
UsersAndGroups WhitelistOf(const boost::property_tree::ptree& tree);

// Reads the file through ReadConfigFile (at most kMaxWhitelistFileBytes).
// Throws ConfigReadError, boost::property_tree::json_parser_error or
// ptree_bad_path; what() says why, for the log.
UsersAndGroups ReadWhitelistFile();

// True while the whitelist is under centralized control.
bool WhitelistUnderCentralControl();

}  // namespace aec
