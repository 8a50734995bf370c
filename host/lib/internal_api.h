// Visibility of the host's own internals.
//
// libkxhost.so is built with hidden visibility: a symbol leaves the library
// only when it is part of the contract (KX_HOST_API, include/host/) or marked
// here. The internals marked here (runtime options and observers, the
// sandbox, the settings database handle, the document parser) are for the
// kxhost program, the reference tools and the tests. They must reach the one
// copy of the host's state that the library holds -- a static copy of these
// files beside libkxhost.so would give a process two log observers and two
// sandboxes -- so they are exported, but they are not installed and no
// plug-in may use them.
#pragma once

#define KX_HOST_INTERNAL __attribute__((visibility("default")))
