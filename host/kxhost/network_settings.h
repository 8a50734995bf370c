// kxhost's writer of the network settings rows (conf.network_plugin_config),
// which the plug-in's network settings store reads.
#pragma once

#include <string>

namespace kxhost {

// Creates the table "conf.network_plugin_config (name TEXT, value TEXT)"
// when missing, then updates the row `name` or inserts it. Values are bound,
// never spliced into the SQL. Throws std::runtime_error with SQLite's
// message on failure.
void StoreNetworkSetting(const std::string& name, const std::string& value);

}  // namespace kxhost
