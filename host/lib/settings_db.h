// The host's settings database connection.
//
// Main database /opt/korvex/usr/db/kx.db with /opt/korvex/usr/db/kx_settings.db
// attached as "conf". Opened on first use (directories made if missing); on
// that first open the host creates its own tables when missing:
//   main.control_plugin_conf (fsPolicy TEXT, fiValue INTEGER)
//   conf.kxhost_policy_source (plugin TEXT, policy TEXT, source TEXT)
// The connection is process-wide and used from one thread at a time.
#pragma once

#include <sqlite3.h>

#include "internal_api.h"

#include "internal_api.h"
namespace kxhost {

// Never null; throws std::runtime_error when the database cannot be opened.
KX_HOST_INTERNAL sqlite3* SettingsDb();

// Closes the connection; the next SettingsDb() opens it again.
KX_HOST_INTERNAL void CloseSettingsDb();

}  // namespace kxhost
