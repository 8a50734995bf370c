// The whitelist file and its centralized-control switch.
//
// The file "/opt/korvex/etc/aec/white-list.config" is a JSON object with the
// arrays "user_list" and "group_list" (an empty list is written as ""); the
// rule-control tool compiles it into the kernel component, so the plug-in
// only writes it and asks the tool to reload it. The whitelist is under
// centralized control while the host's AecPolicySources holds a whitelist
// source that is neither empty nor "local".
//
// Not thread-safe; the plug-in calls it from one host thread at a time.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <string>

#include "users_and_groups.h"

class AECWhiteList {
 public:
  // `source`: the policy source on whose behalf Apply writes.
  explicit AECWhiteList(const std::string& source);

  // Reads the whitelist file. A missing file, bad JSON or a missing key is
  // logged (Boost.Log, severity error) and raises PluginException with
  // error::kInvalidConfig.
  static UsersAndGroups Get();
  // The element values of "user_list" and "group_list", in document order;
  // a missing key raises boost::property_tree::ptree_bad_path.
  static UsersAndGroups Get(const boost::property_tree::ptree& tree);

  // Replaces the file with `value` (atomically; a name that is not
  // well-formed UTF-8 is logged and left out), records this instance's
  // source unless it is already the current one, and has the tool reload the
  // whitelist. A failed write raises boost::property_tree::json_parser_error
  // ("write error"); then the file, the source record and the kernel state
  // are untouched.
  void Apply(UsersAndGroups value);

  // Runs "/opt/korvex/bin/kxaecctl reload -w" and returns system(3)'s status.
  static int Reload();

  static bool IsEnableCC();
  // "local" while control is off, else the stored whitelist source.
  static std::string CurrentSource();
  // Records this instance's source as the whitelist source (and saves the
  // sources) unless it equals CurrentSource().
  void EnableCC() const;
  // When control is on: clears the whitelist source, saves the sources and
  // recomputes the rule set's checksum. Otherwise does nothing at all.
  static void DisableCC();

  // The whitelist file's path.
  static const std::string& FilePath();

 private:
  std::string source_;
};
