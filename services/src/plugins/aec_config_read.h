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
// The files that are JSON are parsed only after their nesting is counted:
// Boost's JSON reader descends one call per level, so a file nested deeply
// enough would end the reading process on its stack. docs/security.md
// lists the bounds.
#pragma once

#include <boost/property_tree/ptree.hpp>
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

// How deep a JSON configuration file may nest (objects and arrays). Every
// such file nests two levels: {"user_list": [...]}.
constexpr std::size_t kMaxConfigDepth = 64;

// Why a file could not be read. what() names the path and the reason, ready
// for a log line: "<path>: not a regular file", "<path>: larger than N
// bytes", "<path>: nested deeper than N levels", "<path>: <strerror>".
class ConfigReadError : public std::runtime_error {
 public:
  enum class Kind { kMissing, kNotRegular, kTooLarge, kTooDeep, kIo };
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

// The tree of `text`, the content of the JSON file `path`. Throws
// ConfigReadError (kTooDeep) when it nests deeper than kMaxConfigDepth,
// before any tree is built, and boost::property_tree::json_parser_error
// when it does not parse.
boost::property_tree::ptree ParseConfigJson(const std::string& path,
                                            const std::string& text);

// ReadConfigFile, then ParseConfigJson.
boost::property_tree::ptree ReadJsonConfigFile(const std::string& path,
                                               std::size_t max_bytes);

}  // namespace aec
