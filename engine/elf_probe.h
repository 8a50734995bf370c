// Whether an opened file is an ELF shared object, read from the descriptor
// fanotify hands over (reading it raises no further permission event).
#pragma once

namespace aec::engine {

// True for an ELF object of type ET_DYN whose dynamic section does not
// carry DF_1_PIE (a position-independent program is ET_DYN too, but it is
// started, not loaded). Any read failure or foreign format: false.
bool IsElfSharedObject(int fd);

} // namespace aec::engine
