// Events made from files on disk instead of fanotify: what a start or a
// library load of each file would ask. For decision-only runs (the
// daemon's --decide-list, benchmarks, what-if replays).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "decision.h"

namespace aec::engine {

// Opens and stats `path`: an ELF shared object becomes a library load, a
// file with an execute bit a start, anything else an open. False when the
// path is not a readable regular file.
bool EventForFile(const std::string &path, std::uint32_t uid,
                  const std::vector<std::uint32_t> &gids, Event *event);

} // namespace aec::engine
