// The shared steps of the rule commands: request values to rule-control
// tool arguments ("add" and "edit"), and the runs for the whitelist and the
// resource exceptions ("add" and "remove").
#pragma once

#include <boost/shared_ptr.hpp>
#include <string>
#include <vector>

#include "host/ixml.h"

class KxAecCtl;

namespace aec {

// Reads repeated "u", "g", "r" and the attributes "resource-file",
// "recursive", "no-depend", "disable", "extended", "all-users" from
// `document` and adds them to `tool`: users and groups (or -a instead, when
// `allowAllUsers` and "all-users" is exactly "1"), resources (empty lists
// too, which add nothing), -f for a non-empty resource file, -R/-d/-D for
// "1", and -X for "extended" "1" unless `allowAllUsers`. Any switch text but
// "1" counts as unset. Never throws for request content.
void BuildToolArgs(const boost::shared_ptr<IXml>& document, KxAecCtl& tool,
                   bool allowAllUsers);

// Runs the tool with `command` and no rule name once for `users` and
// `groups` together and once for `resources`, each only when it has
// something to pass (an empty list is no request at all). The replies go to
// `result` as "whitelist" and "resource-exception", in that order.
void RunListTools(const std::string& command,
                  const std::vector<std::string>& users,
                  const std::vector<std::string>& groups,
                  const std::vector<std::string>& resources,
                  const boost::shared_ptr<IXml>& result);

}  // namespace aec
