// The table behind a request getter, as the host makes it when missing.
#pragma once

#include <string>

#include "host/request_getters.h"

namespace kxhost {

// "CREATE TABLE IF NOT EXISTS <table> (<key> TEXT, <value> INTEGER)": the
// layout the plug-in's own set-up would have made. The plug-in's first-start
// text may never create it (docs/storage.md), so the host makes it before it
// reads or stores a kernel policy's value.
std::string CreateTableStatement(const PolicyDbRequestGetter& getter);

}  // namespace kxhost
