// The shared step of the "add" and "edit" commands: request values to
// rule-control tool arguments.
#pragma once

#include <boost/shared_ptr.hpp>

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

}  // namespace aec
