// The signals the daemons of this system (kxaecd, kxserv) take from their
// supervisor: SIGTERM and SIGINT stop them, SIGHUP makes them read their
// configuration again. Each daemon blocks them in its main thread before it
// starts any other, so that no thread dies of one, and then takes them in one
// place (sigwait, or a signalfd in its event loop). Header only.
#pragma once

#include <signal.h>

namespace kxhost {

inline sigset_t DaemonSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  return set;
}

// Blocks DaemonSignals() in the calling thread (threads started afterwards
// inherit the mask) and ignores SIGPIPE, so that a client that goes away
// turns a write into an EPIPE error instead of ending the daemon.
inline void BlockDaemonSignals() {
  const sigset_t set = DaemonSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

}  // namespace kxhost
