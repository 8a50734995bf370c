// Running programs without a shell.
//
// ExecCommand starts argv[0] with the argument vector `argv` (which ends with
// a null entry) through fork and execv, waits for it and returns its exit
// code (0 on success). A program that cannot be started, or that ends by a
// signal, gives a non-zero result (127, or 128 + the signal number). The
// child's standard input is /dev/null. Never throws.
//
// `flags` is the host's setting of the object: kDiscardOutput sends the
// child's standard output and error to /dev/null (the plug-in's integrity run
// passes 16); otherwise they are inherited.
#pragma once

#include <vector>

#include "host/host_api.h"

class KX_HOST_API TtyHelpers {
 public:
  static constexpr int kDiscardOutput = 16;

  explicit TtyHelpers(int flags);
  int ExecCommand(const std::vector<char*>& argv) const;

 private:
  int flags_;
};
