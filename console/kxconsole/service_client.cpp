#include "service_client.h"

#include <unistd.h>

#include "common/frame.h"
#include "lib/xml_document.h"

namespace kxconsole {

boost::property_tree::ptree ServiceClient::Ask(
    const std::string& request) const {
  std::string reply;
  try {
    const int fd = kxserv::ConnectTo(socket_path_);
    try {
      kxserv::SendFrame(fd, request);
      reply = kxserv::ReadFrame(fd, timeout_ms_);
    } catch (...) {
      close(fd);
      throw;
    }
    close(fd);
  } catch (const kxserv::SocketError& e) {
    throw ServiceUnreachable("The service kxserv is not reachable at " +
                             socket_path_ + ": " + e.what());
  }
  try {
    return kxhost::ParseXml(reply)->Tree();
  } catch (const std::exception& e) {
    throw ServiceUnreachable("The service kxserv is not reachable at " +
                             socket_path_ + ": its reply is not XML (" +
                             e.what() + ")");
  }
}

std::string XmlEscape(const std::string& text) {
  return kxhost::EscapeMarkup(text);
}

}  // namespace kxconsole
