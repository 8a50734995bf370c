// Real parts for the whitelist suite: local accounts through nss_wrapper, a
// private network namespace, a real slapd holding a small directory, and
// file-system faults inside the sandbox.
#pragma once

#include <string>

namespace wltest {

// --- Local accounts (nss_wrapper) -----------------------------------------
// The suite re-executes itself at start with nss_wrapper preloaded and the
// passwd/group files below (nss_reexec.cpp); the machine's /etc is never
// read or written by these lookups. False when nss_wrapper is not available.
bool NssWrapped();
// The local accounts the suite knows. Users: root, alice@corp, corp\bob,
// dave@corp and corp\dave (both forms, to show which one wins). Groups:
// root, devs@corp, corp\ops.
extern const char* const kPasswdFile;
extern const char* const kGroupFile;

// --- Network ---------------------------------------------------------------
// Moves the test process into a network namespace of its own (once) with
// the loopback interface up, so port 3268 is ours and nothing leaves it.
void EnterPrivateNetwork();

// --- The directory ---------------------------------------------------------
// dc=corp,dc=example on ldap://127.0.0.1:3268, readable only after a bind.
constexpr const char* kDirectoryServer = "127.0.0.1";
constexpr const char* kBindDn = "cn=kxbind,dc=corp,dc=example";
constexpr const char* kBindPassword = "bind-secret";
// Entries, by SID: users alice, bob, carol (no local account), dave;
// groups devs, ops, qa (no local group); a printer that is neither.
constexpr const char* kAliceSid = "S-1-5-21-1-2-3-1001";
constexpr const char* kBobSid = "S-1-5-21-1-2-3-1002";
constexpr const char* kCarolSid = "S-1-5-21-1-2-3-1003";
constexpr const char* kDaveSid = "S-1-5-21-1-2-3-1004";
constexpr const char* kDevsSid = "S-1-5-21-1-2-3-2001";
constexpr const char* kOpsSid = "S-1-5-21-1-2-3-2002";
constexpr const char* kQaSid = "S-1-5-21-1-2-3-2003";
constexpr const char* kPrinterSid = "S-1-5-21-1-2-3-3001";
constexpr const char* kUnknownSid = "S-1-5-21-1-2-3-9999";

// Starts slapd on first use (in the private network); it runs until the
// test program ends. Empty on success, else why the directory is not
// available (the caller skips).
std::string StartDirectory();

// Writes the directory account into the network settings store of the
// current sandbox: KXDomainUser, KXDomainPassword (enciphered), KXActiveLDS.
void StoreDirectoryAccount(const std::string& server,
                           const std::string& password = kBindPassword);

// --- File-system faults ------------------------------------------------------
// Makes `dir` read-only (a read-only bind mount over itself) while alive.
class ReadOnlyDir {
 public:
  explicit ReadOnlyDir(const std::string& dir);
  ~ReadOnlyDir();
  ReadOnlyDir(const ReadOnlyDir&) = delete;
  ReadOnlyDir& operator=(const ReadOnlyDir&) = delete;

 private:
  std::string dir_;
};

// Mounts a tiny tmpfs over `dir` that holds a copy of `dir`'s files and is
// then filled up, so that any further write fails with ENOSPC.
class FullDir {
 public:
  explicit FullDir(const std::string& dir);
  ~FullDir();
  FullDir(const FullDir&) = delete;
  FullDir& operator=(const FullDir&) = delete;

 private:
  std::string dir_;
};

// The whitelist source recorded by the host, as it is stored (re-read).
std::string StoredWhitelistSource();
std::string StoredExceptionSource();

}  // namespace wltest
