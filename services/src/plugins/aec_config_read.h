// Reading a configuration file safely: the one way the plug-in, the tools
// and the enforcing component read rule files, the whitelist, the resource
// exceptions and the loaded set.
//
// These files live under /opt/korvex/etc/aec and /opt/korvex/var/lib/aec,
// but anyone who can write there by mistake (a careless administrator, a
// restore from a backup) can leave a FIFO, a device or a huge file behind.
// A plain read would hang on the FIFO forever or take all memory on the huge
// file. So the file is opened without blocking, must be a regular file once
// open (the check is on the open descriptor, so a link swapped in between
// cannot fool it), and is read only up to a bound chosen per kind of file.
// docs/security.md lists the bounds.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

namespace aec {

// The bounds, in bytes.
constexpr std::size_t kMaxRuleFileBytes = 16u << 20;      // one rule file
constexpr std::size_t kMaxWhitelistFileBytes = 4u << 20;  // white-list.config
constexpr std::size_t kMaxExceptionsFileBytes =
    16u << 20;  // resource-exception.conf
constexpr std::size_t kMaxLoadedSetBytes = 256u << 20;  // loaded-rules

// Why a file could not be read. what() names the path and the reason, ready
// for a log line: "<path>: not a regular file", "<path>: larger than N
// bytes", "<path>: <strerror>".
class ConfigReadError : public std::runtime_error {
 public:
  enum class Kind { kMissing, kNotRegular, kTooLarge, kIo };
  ConfigReadError(Kind kind, const std::string& what)
      : std::runtime_error(what), kind_(kind) {}
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

enum class Links { kFollow, kRefuse };

// The whole content of `path`. Opens with O_NONBLOCK (a FIFO or device
// never blocks the caller) and, with Links::kRefuse, O_NOFOLLOW; refuses
// anything that is not a regular file and any file longer than `max_bytes`
// (also one that grows past it while being read). Throws ConfigReadError
// (kMissing when the path does not exist); never blocks on the file's type.
std::string ReadConfigFile(const std::string& path, std::size_t max_bytes,
                           Links links = Links::kFollow);

}  // namespace aec
