// The directory client over OpenLDAP's libldap.
//
// Decisions (docs/whitelist.md has the examples):
//  - The search base is the root DSE's defaultNamingContext (an Active
//    Directory answers it) or else its first namingContexts value.
//  - A user entry is one whose objectClass holds "user", "person",
//    "organizationalPerson" or "inetOrgPerson"; a group entry one whose
//    objectClass holds "group", "groupOfNames" or "groupOfUniqueNames"
//    (case-insensitive). Active Directory marks users "user" and groups
//    "group"; the test directory uses the standard classes.
//  - Every network step is bounded: connecting by the network timeout,
//    every synchronous operation by the operation timeout, and searches also
//    by a server-side time limit, so an unreachable or mute directory costs
//    seconds, never a hang.
#include "host/kxldap.h"

#include <ldap.h>
#include <strings.h>
#include <sys/time.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <vector>

namespace {

constexpr int kNetworkTimeoutSeconds = 5;
constexpr int kOperationTimeoutSeconds = 5;
constexpr int kSearchTimeLimitSeconds = 5;
constexpr int kGlobalCatalogueStorage = 1;

const char* const kUserClasses[] = {"user", "person", "organizationalPerson",
                                    "inetOrgPerson"};
const char* const kGroupClasses[] = {"group", "groupOfNames",
                                     "groupOfUniqueNames"};

LDAP* Handle(void* ld) { return static_cast<LDAP*>(ld); }

struct MessageFree {
  void operator()(LDAPMessage* message) const { ldap_msgfree(message); }
};
using Message = std::unique_ptr<LDAPMessage, MessageFree>;

struct ValuesFree {
  void operator()(berval** values) const { ldap_value_free_len(values); }
};
using Values = std::unique_ptr<berval*, ValuesFree>;

struct HandleFree {
  void operator()(LDAP* ld) const { ldap_unbind_ext_s(ld, nullptr, nullptr); }
};
using OwnedHandle = std::unique_ptr<LDAP, HandleFree>;

std::string Text(const berval* value) {
  return std::string(value->bv_val, value->bv_len);
}

std::vector<std::string> AttributeValues(LDAP* ld, LDAPMessage* entry,
                                         const char* attribute) {
  std::vector<std::string> result;
  Values values(ldap_get_values_len(ld, entry, attribute));
  if (!values) return result;
  for (berval** value = values.get(); *value != nullptr; ++value) {
    result.push_back(Text(*value));
  }
  return result;
}

template <std::size_t N>
bool HoldsAny(const std::vector<std::string>& classes,
              const char* const (&wanted)[N]) {
  for (const std::string& value : classes) {
    for (const char* name : wanted) {
      if (strcasecmp(value.c_str(), name) == 0) return true;
    }
  }
  return false;
}

// A host name, an IPv4 address or a bracketed IPv6 address; nothing that
// could change the meaning of the URI it is put into.
std::string UriHost(const std::string& server) {
  if (server.empty()) {
    throw std::runtime_error("no directory server is configured");
  }
  bool plain = true;
  bool ipv6 = true;
  for (char c : server) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (!(std::isalnum(u) || c == '.' || c == '-' || c == '_')) plain = false;
    if (!(std::isxdigit(u) || c == ':' || c == '.')) ipv6 = false;
  }
  if (plain) return server;
  // An IPv6 address has at least two colons; "name:port" is refused.
  const auto colons = std::count(server.begin(), server.end(), ':');
  if (ipv6 && colons >= 2) return "[" + server + "]";
  if (server.size() > 2 && server.front() == '[' && server.back() == ']') {
    const std::string inner = server.substr(1, server.size() - 2);
    bool ok = std::count(inner.begin(), inner.end(), ':') >= 2;
    for (char c : inner) {
      if (!(std::isxdigit(static_cast<unsigned char>(c)) || c == ':' ||
            c == '.')) {
        ok = false;
      }
    }
    if (ok) return server;
  }
  throw std::runtime_error("invalid directory server name '" + server + "'");
}

void CheckPort(const std::string& port) {
  bool digits = !port.empty() && port.size() <= 5;
  for (char c : port) {
    if (!std::isdigit(static_cast<unsigned char>(c))) digits = false;
  }
  if (!digits || std::atoi(port.c_str()) < 1 ||
      std::atoi(port.c_str()) > 65535) {
    throw std::runtime_error("invalid directory port '" + port + "'");
  }
}

void SetOption(LDAP* ld, int option, const void* value, const char* name) {
  if (ldap_set_option(ld, option, value) != LDAP_OPT_SUCCESS) {
    throw std::runtime_error(std::string("cannot set the directory option ") +
                             name);
  }
}

bool Unreachable(int rc) {
  return rc == LDAP_SERVER_DOWN || rc == LDAP_CONNECT_ERROR ||
         rc == LDAP_TIMEOUT;
}

std::uint64_t ParseNumber(const std::string& text, std::uint64_t max,
                          const std::string& sid) {
  if (text.empty() || text.size() > 20) {
    throw std::invalid_argument("malformed SID '" + sid + "'");
  }
  std::uint64_t value = 0;
  for (char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c))) {
      throw std::invalid_argument("malformed SID '" + sid + "'");
    }
    const std::uint64_t digit = static_cast<std::uint64_t>(c - '0');
    if (value > (max - digit) / 10) {
      throw std::invalid_argument("malformed SID '" + sid + "'");
    }
    value = value * 10 + digit;
  }
  return value;
}

}  // namespace

KXLdap::KXLdap(const std::string& user, const std::string& password,
               int storage_type, const std::string& port)
    : user_(user),
      password_(password),
      storage_type_(storage_type),
      port_(port) {}

KXLdap::~KXLdap() {
  if (ld_ != nullptr) ldap_unbind_ext_s(Handle(ld_), nullptr, nullptr);
}

void KXLdap::Connect(const std::string& server, bool use_tls) {
  if (storage_type_ != kGlobalCatalogueStorage) {
    throw std::runtime_error("unsupported directory storage type " +
                             std::to_string(storage_type_));
  }
  CheckPort(port_);
  const std::string uri = "ldap://" + UriHost(server) + ":" + port_;
  if (ld_ != nullptr) {
    ldap_unbind_ext_s(Handle(ld_), nullptr, nullptr);
    ld_ = nullptr;
    base_.clear();
  }

  LDAP* raw = nullptr;
  int rc = ldap_initialize(&raw, uri.c_str());
  if (rc != LDAP_SUCCESS || raw == nullptr) {
    throw std::runtime_error("cannot use the directory address " + uri + ": " +
                             ldap_err2string(rc));
  }
  OwnedHandle ld(raw);

  const int version = LDAP_VERSION3;
  SetOption(ld.get(), LDAP_OPT_PROTOCOL_VERSION, &version, "protocol version");
  SetOption(ld.get(), LDAP_OPT_REFERRALS, LDAP_OPT_OFF, "referrals");
  const timeval network_timeout{kNetworkTimeoutSeconds, 0};
  SetOption(ld.get(), LDAP_OPT_NETWORK_TIMEOUT, &network_timeout,
            "network timeout");
  const timeval operation_timeout{kOperationTimeoutSeconds, 0};
  SetOption(ld.get(), LDAP_OPT_TIMEOUT, &operation_timeout, "timeout");
  const int time_limit = kSearchTimeLimitSeconds;
  SetOption(ld.get(), LDAP_OPT_TIMELIMIT, &time_limit, "time limit");

  if (use_tls) {
    rc = ldap_start_tls_s(ld.get(), nullptr, nullptr);
    if (rc != LDAP_SUCCESS) {
      throw std::runtime_error("cannot start TLS with the directory " + uri +
                               ": " + ldap_err2string(rc));
    }
  }

  // A simple bind with a name and no password is an anonymous bind that
  // many directories accept; never let a missing password pass for one.
  if (!user_.empty() && password_.empty()) {
    throw std::runtime_error("refusing to bind to the directory " + uri +
                             " as " + user_ + " without a password");
  }
  std::vector<char> secret(password_.begin(), password_.end());
  berval credentials{static_cast<ber_len_t>(secret.size()),
                     secret.empty() ? nullptr : secret.data()};
  rc = ldap_sasl_bind_s(ld.get(), user_.empty() ? nullptr : user_.c_str(),
                        LDAP_SASL_SIMPLE, &credentials, nullptr, nullptr,
                        nullptr);
  std::fill(secret.begin(), secret.end(), '\0');
  if (Unreachable(rc)) {
    throw std::runtime_error("the directory server " + uri +
                             " cannot be reached: " + ldap_err2string(rc));
  }
  if (rc != LDAP_SUCCESS) {
    throw std::runtime_error("bind to the directory " + uri + " as '" + user_ +
                             "' failed: " + ldap_err2string(rc));
  }

  // The naming context is read from the root DSE.
  char default_context[] = "defaultNamingContext";
  char contexts[] = "namingContexts";
  char* attributes[] = {default_context, contexts, nullptr};
  timeval search_timeout{kOperationTimeoutSeconds, 0};
  LDAPMessage* raw_result = nullptr;
  rc = ldap_search_ext_s(ld.get(), "", LDAP_SCOPE_BASE, "(objectClass=*)",
                         attributes, 0, nullptr, nullptr, &search_timeout, 1,
                         &raw_result);
  Message result(raw_result);
  if (rc != LDAP_SUCCESS) {
    throw std::runtime_error("cannot read the root entry of the directory " +
                             uri + ": " + ldap_err2string(rc));
  }
  std::string base;
  if (LDAPMessage* entry = ldap_first_entry(ld.get(), result.get())) {
    std::vector<std::string> values =
        AttributeValues(ld.get(), entry, default_context);
    if (values.empty()) values = AttributeValues(ld.get(), entry, contexts);
    if (!values.empty()) base = values.front();
  }
  if (base.empty()) {
    throw std::runtime_error("the directory " + uri +
                             " names no naming context");
  }
  base_ = base;
  ld_ = ld.release();
}

std::string KXLdap::GetDomainNameStr() {
  if (ld_ == nullptr) throw std::runtime_error("directory not connected");
  LDAPDN raw = nullptr;
  if (ldap_str2dn(base_.c_str(), &raw, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS) {
    throw std::runtime_error("malformed naming context '" + base_ + "'");
  }
  std::unique_ptr<LDAPRDN, void (*)(LDAPDN)> dn(raw, ldap_dnfree);
  std::string domain;
  for (LDAPRDN* rdn = dn.get(); rdn != nullptr && *rdn != nullptr; ++rdn) {
    for (LDAPAVA** ava = *rdn; *ava != nullptr; ++ava) {
      if (strcasecmp(Text(&(*ava)->la_attr).c_str(), "dc") != 0) continue;
      if (!domain.empty()) domain += '.';
      domain += Text(&(*ava)->la_value);
    }
  }
  return domain;
}

std::string KXLdap::GetSAMAccountNameBySid(const std::string& sid) {
  return Lookup(sid, false);
}

std::string KXLdap::GetGroupNameBySid(const std::string& sid) {
  return Lookup(sid, true);
}

std::string KXLdap::Lookup(const std::string& sid, bool group) {
  if (ld_ == nullptr) throw std::runtime_error("directory not connected");
  const std::string filter =
      "(objectSid=" + EscapeFilterBytes(SidToBinary(sid)) + ")";
  char account[] = "sAMAccountName";
  char object_class[] = "objectClass";
  char* attributes[] = {account, object_class, nullptr};
  timeval timeout{kOperationTimeoutSeconds, 0};
  LDAPMessage* raw_result = nullptr;
  const int rc = ldap_search_ext_s(
      Handle(ld_), base_.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(),
      attributes, 0, nullptr, nullptr, &timeout, 0, &raw_result);
  Message result(raw_result);
  if (rc != LDAP_SUCCESS && rc != LDAP_SIZELIMIT_EXCEEDED) {
    throw std::runtime_error(
        "search for " + sid +
        " in the directory failed: " + ldap_err2string(rc));
  }
  for (LDAPMessage* entry = ldap_first_entry(Handle(ld_), result.get());
       entry != nullptr; entry = ldap_next_entry(Handle(ld_), entry)) {
    const std::vector<std::string> classes =
        AttributeValues(Handle(ld_), entry, object_class);
    const bool wanted = group ? HoldsAny(classes, kGroupClasses)
                              : HoldsAny(classes, kUserClasses);
    if (!wanted) continue;
    const std::vector<std::string> names =
        AttributeValues(Handle(ld_), entry, account);
    if (!names.empty() && !names.front().empty()) return names.front();
  }
  return "";
}

std::string KXLdap::SidToBinary(const std::string& sid) {
  // S-<revision>-<authority>-<sub-authority>..., at most 15 sub-authorities.
  if (sid.size() < 2 || (sid[0] != 'S' && sid[0] != 's') || sid[1] != '-') {
    throw std::invalid_argument("malformed SID '" + sid + "'");
  }
  std::vector<std::string> parts;
  std::string::size_type start = 2;
  while (true) {
    const std::string::size_type dash = sid.find('-', start);
    parts.push_back(sid.substr(
        start, dash == std::string::npos ? std::string::npos : dash - start));
    if (dash == std::string::npos) break;
    start = dash + 1;
  }
  if (parts.size() < 2 || parts.size() > 2 + 15) {
    throw std::invalid_argument("malformed SID '" + sid + "'");
  }
  const std::uint64_t revision = ParseNumber(parts[0], 255, sid);
  const std::uint64_t authority = ParseNumber(parts[1], 0xFFFFFFFFFFFFull, sid);
  std::string binary;
  binary += static_cast<char>(revision);
  binary += static_cast<char>(parts.size() - 2);
  for (int shift = 40; shift >= 0; shift -= 8) {
    binary += static_cast<char>((authority >> shift) & 0xFF);
  }
  for (std::size_t i = 2; i < parts.size(); ++i) {
    const std::uint64_t sub = ParseNumber(parts[i], 0xFFFFFFFFull, sid);
    for (int shift = 0; shift < 32; shift += 8) {
      binary += static_cast<char>((sub >> shift) & 0xFF);
    }
  }
  return binary;
}

std::string KXLdap::EscapeFilterBytes(const std::string& bytes) {
  static const char kHex[] = "0123456789abcdef";
  std::string escaped;
  escaped.reserve(bytes.size() * 3);
  for (char c : bytes) {
    const unsigned char u = static_cast<unsigned char>(c);
    escaped += '\\';
    escaped += kHex[u >> 4];
    escaped += kHex[u & 0x0F];
  }
  return escaped;
}
