// The loaded set: the rule configuration compiled into the form the
// enforcing component reads (/opt/korvex/var/lib/aec/loaded-rules), as a
// value, with its one reader and its one writer.
//
// Text, one record per line, fields separated by one tab; inside a field a
// backslash, tab, line break or carriage return is written "\\", "\t",
// "\n", "\r". Lines starting "#" are comments; empty lines are skipped.
//   format          1                      (the first record, exactly once)
//   rule            <name> <enable> <all users> <extended> <system>  (0|1)
//   rule-user       <rule> <uid> <user>
//   rule-group      <rule> <gid> <group>
//   rule-resource   <rule> <path>
//   whitelist-user  <uid> <user>
//   whitelist-group <gid> <group>
//   exception       <path>
// docs/tools.md shows an example.
//
// The reader is strict because a half-understood set must never be
// enforced: any line it cannot take whole makes the whole text invalid, and
// the caller keeps the set it had. Pure functions of their arguments; safe
// to call from any thread.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace aec {

// A user or group as the set names it: the numeric id resolved when the set
// was compiled, and the name it was resolved from.
struct LoadedAccount {
  std::uint32_t id = 0;
  std::string name;

  bool operator==(const LoadedAccount& other) const {
    return id == other.id && name == other.name;
  }
};

struct LoadedRule {
  std::string name;
  bool enable = false;
  bool all_users = false;
  bool extended = false;
  bool system = false;
  std::vector<LoadedAccount> users;
  std::vector<LoadedAccount> groups;
  std::vector<std::string> resources;

  bool operator==(const LoadedRule& other) const;
};

struct LoadedSet {
  std::vector<LoadedRule> rules;  // in the order of the text
  std::vector<LoadedAccount> whitelist_users;
  std::vector<LoadedAccount> whitelist_groups;
  std::vector<std::string> exceptions;

  bool operator==(const LoadedSet& other) const;
};

// Why a text is not a loaded set. line() is the 1-based number of the
// offending line, or 0 when the fault is the text as a whole (no format
// record). what() reads "loaded set line N: <reason>" (or "loaded set:
// <reason>").
class LoadedSetError : public std::runtime_error {
 public:
  LoadedSetError(std::size_t line, const std::string& reason);
  std::size_t line() const { return line_; }

 private:
  std::size_t line_;
};

// Parses a whole loaded set. Refused, with LoadedSetError naming the first
// bad line: a record before "format" or a second "format", a format other
// than 1, an unknown record kind, a wrong number of fields, a flag other
// than "0"/"1", an id that is not a decimal number below 2^32, an empty name
// or path, an unknown escape or a lone backslash, a raw carriage return or
// NUL, a rule declared twice, a rule-* record whose rule was not declared
// on an earlier line. Throws nothing else but std::bad_alloc.
LoadedSet ParseLoadedSet(const std::string& text);

// Reads and parses the loaded set at `path` (normally
// /opt/korvex/var/lib/aec/loaded-rules) through ReadConfigFile with
// kMaxLoadedSetBytes, refusing a symbolic link: the set is only ever written
// by the tool, as a regular file. Throws ConfigReadError (aec_config_read.h;
// kind kMissing when no set was ever written) or LoadedSetError.
LoadedSet ReadLoadedSetFile(const std::string& path);

// The text of `set`: a comment header, "format 1", then the rules each with
// its users, groups and resources, the whitelist users, the whitelist
// groups and the exceptions, all in the order `set` holds them (the caller
// decides the order; the tool sorts). ParseLoadedSet(FormatLoadedSet(s))
// == s for every set whose names and paths are not empty.
std::string FormatLoadedSet(const LoadedSet& set);

}  // namespace aec
