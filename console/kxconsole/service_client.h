// The console's side of the kxserv socket: one request per connection, so a
// service that was stopped and started again is reached by the next request
// without any state to repair.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <stdexcept>
#include <string>

namespace kxconsole {

// The service could not be reached or gave no whole reply; what() is the
// one-line message the API shows ("The service kxserv is not reachable at
// PATH: reason").
class ServiceUnreachable : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class ServiceClient {
 public:
  // `timeout_ms` bounds the wait for each part of a reply.
  ServiceClient(std::string socket_path, int timeout_ms)
      : socket_path_(std::move(socket_path)), timeout_ms_(timeout_ms) {}

  // Sends one request document and returns the content of the reply
  // element (children under their names, attributes under "<xmlattr>").
  // Throws ServiceUnreachable; a reply that is not XML counts as one.
  boost::property_tree::ptree Ask(const std::string& request) const;

  const std::string& socket_path() const { return socket_path_; }

 private:
  std::string socket_path_;
  int timeout_ms_;
};

// Text with '&', '<', '>', '"' and '\'' escaped: for values put into
// request documents, and into the console's own HTML pages.
std::string XmlEscape(const std::string& text);

}  // namespace kxconsole
