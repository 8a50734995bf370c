#include "plugin_loader.h"

#include <dlfcn.h>

namespace kxhost {
namespace {

// dlsym hands back an untyped address; the entry point's declared type is
// the contract, so the cast is to exactly that type.
template <class Function>
void Find(void* library, const std::string& path, const char* symbol,
          Function* target) {
  dlerror();
  void* address = dlsym(library, symbol);
  if (address == nullptr) {
    throw LoadError("plug-in " + path + " lacks the entry point " + symbol);
  }
  *target = reinterpret_cast<Function>(address);
}

}  // namespace

PluginEntryPoints LoadPlugin(const std::string& path) {
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* reason = dlerror();
    throw LoadError("cannot load plug-in " + path + ": " +
                    (reason != nullptr ? reason : "unknown error"));
  }
  PluginEntryPoints entry;
  try {
    Find(library, path, plugin_symbols::kInit, &entry.init);
    Find(library, path, plugin_symbols::kExit, &entry.exit);
    Find(library, path, plugin_symbols::kInfo, &entry.info);
    Find(library, path, plugin_symbols::kState, &entry.state);
    Find(library, path, plugin_symbols::kExec, &entry.exec);
    Find(library, path, plugin_symbols::kPolicies, &entry.policies);
    Find(library, path, plugin_symbols::kSetPolicies, &entry.set_policies);
    Find(library, path, plugin_symbols::kImportPolicies,
         &entry.import_policies);
  } catch (const LoadError&) {
    dlclose(library);
    throw;
  }
  return entry;
}

}  // namespace kxhost
