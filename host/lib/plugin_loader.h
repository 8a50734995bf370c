// Loading a plug-in and finding its eight entry points by their C++ names.
#pragma once

#include <stdexcept>
#include <string>

#include "host/plugin_api.h"
#include "internal_api.h"

namespace kxhost {

struct PluginEntryPoints {
  decltype(&plugin_init) init = nullptr;
  decltype(&plugin_exit) exit = nullptr;
  decltype(&plugin_info) info = nullptr;
  decltype(&plugin_state) state = nullptr;
  decltype(&plugin_exec) exec = nullptr;
  decltype(&plugin_policies) policies = nullptr;
  decltype(&plugin_set_policies) set_policies = nullptr;
  decltype(&plugin_import_policies) import_policies = nullptr;
};

// Raised when the library cannot be loaded or lacks an entry point; what()
// is a one-line reason.
class KX_HOST_INTERNAL LoadError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// dlopen(RTLD_NOW | RTLD_LOCAL) and dlsym of every entry point. The library
// stays loaded for the rest of the process. Throws LoadError.
KX_HOST_INTERNAL PluginEntryPoints LoadPlugin(const std::string& path);

}  // namespace kxhost
