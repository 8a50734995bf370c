// The host's directory client (OpenLDAP's libldap).
//
// Resolves security identifiers ("S-1-5-21-…") of a directory to account and
// group names. `storage_type` 1 searches the global catalogue from the root
// of the directory's naming context; `port` is the TCP port as text.
// Connect(server, use_tls) connects and binds with the user and password
// given to the constructor; it throws std::runtime_error with a clear message
// when the server cannot be reached or the bind fails. The lookups throw
// std::runtime_error for a search failure and return "" when no entry has
// that SID, or the entry is not of the asked kind. The connection is closed
// by the destructor. Not thread-safe.
#pragma once

#include <string>

#include "host/host_api.h"

class KX_HOST_API KXLdap {
 public:
  KXLdap(const std::string& user, const std::string& password,
         int storage_type, const std::string& port);
  ~KXLdap();
  KXLdap(const KXLdap&) = delete;
  KXLdap& operator=(const KXLdap&) = delete;

  void Connect(const std::string& server, bool use_tls);
  // The DNS form of the naming context: dc=corp,dc=example -> corp.example.
  std::string GetDomainNameStr();
  // sAMAccountName of the user entry whose objectSid is `sid`; "" if none.
  std::string GetSAMAccountNameBySid(const std::string& sid);
  // sAMAccountName of the group entry whose objectSid is `sid`; "" if none.
  std::string GetGroupNameBySid(const std::string& sid);

  // "S-1-5-21-1-2-3-1001" -> its binary form; throws std::invalid_argument
  // for a malformed text.
  static std::string SidToBinary(const std::string& sid);
  // Every byte as \XX, for a search filter.
  static std::string EscapeFilterBytes(const std::string& bytes);

 private:
  std::string Lookup(const std::string& sid, bool group);

  std::string user_;
  std::string password_;
  int storage_type_;
  std::string port_;
  void* ld_ = nullptr;  // LDAP*, kept opaque so the contract needs no libldap
  std::string base_;
};
