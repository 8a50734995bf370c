// The agent's small configuration files (kxserv.conf, kxconsole.conf): one
// "key = value" a line, "#" starts a comment, blank lines are ignored. The
// readers of those files share this one parser so that they agree on what a
// line means and name a bad line the same way.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>

namespace kxserv {

// A configuration that cannot be used; what() names the file and line.
class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Calls `setting(where, key, value)` for every setting of `path` in file
// order; `where` is "path:line" for messages. Returns false, calling
// nothing, when the file does not exist (every default applies). Throws
// ConfigError for an unreadable file or a line without "=", and passes on
// what `setting` throws.
bool ForEachSetting(
    const std::string& path,
    const std::function<void(const std::string& where, const std::string& key,
                             const std::string& value)>& setting);

// `value` as a whole number from `low` to `high`; ConfigError naming
// `where` otherwise.
long long SettingNumber(const std::string& where, const std::string& value,
                        long long low, long long high);

}  // namespace kxserv
