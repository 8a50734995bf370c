// Readiness for systemd (Type=notify): "READY=1" sent to the datagram socket
// named by NOTIFY_SOCKET, when that is set. The message format is systemd's
// documented notification protocol; no library is needed for one datagram.
#pragma once

namespace kxserv {

// Returns false when NOTIFY_SOCKET is set but the message could not be sent.
bool NotifyReady();

}  // namespace kxserv
