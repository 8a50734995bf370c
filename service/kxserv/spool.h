// Central policy intake: documents dropped into
// /opt/korvex/var/spool/policies/ are applied once each, in name order, and
// then moved to done/ or to failed/ (with NAME.reason beside it).
//
// A document counts as dropped only when it is renamed into the directory
// (inotify IN_MOVED_TO), and names starting with "." are never read. A
// writer therefore writes the file elsewhere on the same file system, or as
// a dot-file in the spool, and renames it to its final name: a half-written
// file is never seen. Documents already waiting are applied at start.
//
// A document whose first non-blank character is "<" is a policies document
// (plugin_set_policies); "{" or "[" is an import document
// (plugin_import_policies); anything else goes to failed/.
#pragma once

#include <string>

#include "lib/plugin_loader.h"

namespace kxserv {

constexpr const char* kSpoolDir = "/opt/korvex/var/spool/policies";

// Makes the spool and its done/ and failed/ folders, and returns an
// inotify descriptor watching it (non-blocking). Throws std::runtime_error.
int WatchSpool();

// Reads the pending inotify events; true when one of them may have brought a
// document (a rename into the spool, or a lost-events overflow).
bool SpoolEventsPending(int inotify_fd);

// On the worker: applies every waiting document, in name order.
void DrainSpool(const kxhost::PluginEntryPoints& plugin);

}  // namespace kxserv
