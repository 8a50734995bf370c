// Which policy source ("local", "dorvi", "yunko", or another) last set the
// rules, the resource exceptions and the whitelist of the execution-control
// plug-in.
//
// One process-wide instance (Get(), never null, owned by the host). It is
// read from /opt/korvex/etc/aec/policy-sources.conf the first time Get() is
// called; WriteConfig() replaces that file atomically (temporary file, flush,
// rename) and returns false, after logging, when it could not (the previous
// file stays); a file that already holds the record is left untouched.
// Defaults when the file is missing or unreadable: rules "local",
// exceptions "local", whitelist "" (no central control).
// Not thread-safe.
#pragma once

#include <string>

#include "host/host_api.h"

class KX_HOST_API AecPolicySources {
 public:
  static AecPolicySources* Get();

  void SetRulesSource(const std::string& source);
  void SetExceptionSource(const std::string& source);
  void SetWhitelistSource(const std::string& source);
  std::string GetRulesSource() const;
  std::string GetExceptionSource() const;
  std::string GetWhitelistSource() const;
  bool WriteConfig() const;

  // Host operations: read the file again (tests and tools that change it
  // from outside), and the file's path.
  void ReadConfig();
  static std::string ConfigPath();

 private:
  AecPolicySources();

  std::string rules_;
  std::string exceptions_;
  std::string whitelist_;
};
