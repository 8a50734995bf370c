// Policy documents the service tests send, as central management would.
#pragma once

#include <string>

namespace servicetest {

inline std::string StatePolicies(int state, int mode) {
  return "<policies>"
         "<policy group=\"aec\" name=\"state\" source=\"local\"><type>" +
         std::to_string(state) +
         "</type></policy>"
         "<policy group=\"aec\" name=\"mode\" source=\"local\"><type>" +
         std::to_string(mode) + "</type></policy></policies>";
}

// Wrapped for the socket: a set-policies service request.
inline std::string SetPoliciesRequest(const std::string& policies) {
  return "<kxserv command=\"set-policies\">" + policies + "</kxserv>";
}

// A rule, a whitelist and an exception, as an import document.
inline std::string ImportDocument(const std::string& rule,
                                  const std::string& user) {
  return R"({"policies": [
  {"group": "aec", "name": "rules", "source": "local", "value": [
    {"name": ")" +
         rule + R"(", "all_allowed": "false", "extended": "false",
     "system": "false", "enable": "true", "user_list": ["root"],
     "group_list": "", "resource_list": ["/bin/ls", "/bin/cat"]}]},
  {"group": "aec", "name": "whitelist", "source": "local", "value": [
    {"name": ")" +
         user + R"(", "type": "user"}]},
  {"group": "aec", "name": "exceptions", "source": "local",
   "value": ["/usr/lib/libexample.so"]}
]})";
}

}  // namespace servicetest
