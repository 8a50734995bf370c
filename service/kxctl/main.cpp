// kxctl: the command-line client of kxserv. Sends one request document (or
// subscribes and prints notifications) and prints what the service answers.
// No prompts: everything comes from the arguments, a file or standard input.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "common/console_config.h"
#include "common/frame.h"
#include "host/ixml.h"
#include "lib/xml_document.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitConnection = 3;

const char kUsage[] =
    "Usage: kxctl [--socket PATH | --root DIR] [--timeout MS] COMMAND ...\n"
    "Talks to kxserv, the Korvex agent's service.\n"
    "\n"
    "Commands:\n"
    "  send FILE|-            send the request document in FILE (- : standard\n"
    "                         input) as it is\n"
    "  request NAME [@ATTR=VALUE | PARAM=VALUE]...\n"
    "                         build and send <request command=\"NAME\">: "
    "@ATTR\n"
    "                         becomes an attribute, PARAM a child element\n"
    "                         (repeat PARAM for a list)\n"
    "  policies               print the plug-in's policies document\n"
    "  set-policies FILE|-    apply a policies document (XML)\n"
    "  import-policies FILE|- apply an import document (JSON)\n"
    "  info | state           the plug-in's identity / the service's state\n"
    "  watch [--count N]      subscribe and print every notification as it\n"
    "                         comes (N: stop after N of them)\n"
    "  console-login [--config FILE]\n"
    "                         print a one-time link that opens a session of\n"
    "                         the web console (kxconsole); FILE is the\n"
    "                         console's configuration (default\n"
    "                         etc/kxconsole.conf of the root)\n"
    "\n"
    "  --socket PATH  the service socket (default\n"
    "                 /opt/korvex/var/run/kxserv.sock)\n"
    "  --root DIR     the socket of a service started with kxserv --root DIR\n"
    "  --timeout MS   wait at most MS milliseconds for the reply (default\n"
    "                 none; watch never times out)\n"
    "\n"
    "The reply document is printed on standard output.\n"
    "Exit codes: 0 every result in the reply is 1 (or it has none); 1 a\n"
    "result is 0 (the reason is in the reply); 2 usage or unreadable input;\n"
    "3 the service cannot be reached or broke the connection.\n";

struct Usage {
  std::string reason;
};

std::string ReadInput(const std::string& path) {
  if (path == "-") {
    return std::string(std::istreambuf_iterator<char>(std::cin),
                       std::istreambuf_iterator<char>());
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) throw Usage{"cannot read " + path};
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

boost::shared_ptr<IXml> ServiceRequest(const std::string& command) {
  auto request = XMLParserBoost::CreateEmptyXML();
  request->SetAttribute("command", command);
  return request;
}

std::string Print(const boost::shared_ptr<IXml>& document,
                  const std::string& root) {
  return document->ToString(root);
}

std::string BuildRequest(const std::vector<std::string>& words) {
  const std::string& command = words.at(0);
  if (command == "send") {
    if (words.size() != 2) throw Usage{"send needs one FILE or -"};
    return ReadInput(words[1]);
  }
  if (command == "request") {
    if (words.size() < 2) throw Usage{"request needs a command name"};
    auto request = XMLParserBoost::CreateEmptyXML();
    request->SetAttribute("command", words[1]);
    for (std::size_t i = 2; i < words.size(); ++i) {
      const auto equals = words[i].find('=');
      if (equals == std::string::npos || equals == 0 ||
          (words[i][0] == '@' && equals == 1)) {
        throw Usage{"expected @ATTR=VALUE or PARAM=VALUE, got '" + words[i] +
                    "'"};
      }
      const std::string value = words[i].substr(equals + 1);
      if (words[i][0] == '@') {
        request->SetAttribute(words[i].substr(1, equals - 1), value);
      } else {
        request->AddValue(words[i].substr(0, equals), value, true);
      }
    }
    return Print(request, "request");
  }
  if (command == "policies" || command == "info" || command == "state") {
    if (words.size() != 1) throw Usage{command + " takes no arguments"};
    return Print(ServiceRequest(command), "kxserv");
  }
  if (command == "set-policies") {
    if (words.size() != 2) throw Usage{"set-policies needs one FILE or -"};
    boost::shared_ptr<kxhost::XmlDocument> document;
    try {
      document = kxhost::ParseXml(ReadInput(words[1]));
    } catch (const std::runtime_error& e) {
      throw Usage{words[1] + ": " + e.what()};
    }
    auto request = ServiceRequest(command);
    request->AddNode(document->Name().empty() ? "policies" : document->Name(),
                     document, false);
    return Print(request, "kxserv");
  }
  if (command == "import-policies") {
    if (words.size() != 2) throw Usage{"import-policies needs one FILE or -"};
    auto request = ServiceRequest(command);
    request->AddValue("json", ReadInput(words[1]), false);
    return Print(request, "kxserv");
  }
  throw Usage{"unknown command '" + command + "' (see --help)"};
}

// Counts the "result" elements below `tree`, and those that are not "1".
void CountResults(const boost::property_tree::ptree& tree, int* all,
                  int* failed) {
  for (const auto& child : tree) {
    if (child.first == "result") {
      ++*all;
      if (child.second.data() != "1") ++*failed;
    } else if (!child.first.empty() && child.first[0] != '<') {
      CountResults(child.second, all, failed);
    }
  }
}

// A reply succeeded when every result in it is 1 (a `get` answers with one
// section, and one result, per part asked for); a reply that carries no
// result at all (`status_confirmation` reports a state) succeeded too.
// Errors of the service always carry result 0.
bool Succeeded(const std::string& reply) {
  boost::shared_ptr<kxhost::XmlDocument> document;
  try {
    document = kxhost::ParseXml(reply);
  } catch (const std::runtime_error&) {
    return false;
  }
  int all = 0, failed = 0;
  CountResults(document->Tree(), &all, &failed);
  return failed == 0;
}

void PrintReply(const std::string& reply) {
  std::cout << reply;
  if (!reply.empty() && reply.back() != '\n') std::cout << '\n';
  std::cout.flush();
}

// Asks the service for a login token and prints the link to the console.
// The configuration is read first so that a broken one costs no token.
int ConsoleLogin(int fd, const std::vector<std::string>& words,
                 const std::string& root, int timeout_ms) {
  std::string config_path = kxserv::ConsoleConfigPath(root);
  if (words.size() == 3 && words[1] == "--config") {
    config_path = words[2];
  } else if (words.size() != 1) {
    throw Usage{"console-login takes only --config FILE"};
  }
  kxserv::ConsoleConfig config;
  try {
    config = kxserv::ReadConsoleConfig(config_path);
  } catch (const kxserv::ConfigError& e) {
    throw Usage{e.what()};
  }
  kxserv::SendFrame(fd, Print(ServiceRequest("console-login"), "kxserv"));
  const std::string reply = kxserv::ReadFrame(fd, timeout_ms);
  boost::shared_ptr<kxhost::XmlDocument> document;
  try {
    document = kxhost::ParseXml(reply);
  } catch (const std::runtime_error&) {
  }
  std::unique_ptr<char[]> token(document ? document->GetParam("token")
                                         : nullptr);
  if (!Succeeded(reply) || !token || !*token.get()) {
    PrintReply(reply);
    return kExitFailed;
  }
  std::unique_ptr<char[]> expires(document->GetParam("expires"));
  std::cout << kxserv::ConsoleLoginUrl(config, token.get()) << '\n';
  std::cout.flush();
  if (expires) {
    const std::time_t until = std::strtoll(expires.get(), nullptr, 10);
    char when[64];
    std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S %Z",
                  std::localtime(&until));
    std::fprintf(stderr, "kxctl: the link opens one session, once, until %s\n",
                 when);
  }
  return 0;
}

int Watch(int fd, const std::vector<std::string>& words) {
  long count = -1;
  if (words.size() == 3 && words[1] == "--count") {
    count = std::strtol(words[2].c_str(), nullptr, 10);
    if (count <= 0) throw Usage{"--count needs a positive number"};
  } else if (words.size() != 1) {
    throw Usage{"watch takes only --count N"};
  }
  auto request = ServiceRequest("subscribe");
  kxserv::SendFrame(fd, Print(request, "kxserv"));
  const std::string reply = kxserv::ReadFrame(fd);
  if (!Succeeded(reply)) {
    PrintReply(reply);
    return kExitFailed;
  }
  std::fprintf(stderr, "kxctl: watching\n");
  for (long seen = 0; count < 0 || seen < count; ++seen) {
    PrintReply(kxserv::ReadFrame(fd));
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string root = "/opt/korvex";
  std::string socket_path = kxserv::SocketPath(root);
  int timeout_ms = -1;
  std::vector<std::string> words;
  try {
    int i = 1;
    for (; i < argc; ++i) {
      const std::string arg = argv[i];
      if (arg == "--help" || arg == "-h") {
        std::cout << kUsage;
        return 0;
      }
      if (arg.empty() || arg[0] != '-' || arg == "-") break;
      if (i + 1 >= argc) throw Usage{arg + " needs a value"};
      if (arg == "--socket") {
        socket_path = argv[++i];
      } else if (arg == "--root") {
        root = argv[++i];
        socket_path = kxserv::SocketPath(root);
      } else if (arg == "--timeout") {
        timeout_ms = std::atoi(argv[++i]);
        if (timeout_ms <= 0) throw Usage{"--timeout needs a positive number"};
      } else {
        throw Usage{"unknown option " + arg + " (see --help)"};
      }
    }
    words.assign(argv + i, argv + argc);
    if (words.empty()) throw Usage{"no command (see --help)"};

    const bool own_dialogue =
        words[0] == "watch" || words[0] == "console-login";
    const std::string request =
        own_dialogue ? std::string() : BuildRequest(words);
    const int fd = kxserv::ConnectTo(socket_path);
    if (words[0] == "watch") return Watch(fd, words);
    if (words[0] == "console-login") {
      return ConsoleLogin(fd, words, root, timeout_ms);
    }
    // A service that refuses this peer answers before reading the request;
    // its reply is still there to read when sending fails.
    std::string send_error;
    try {
      kxserv::SendFrame(fd, request);
    } catch (const kxserv::SocketError& e) {
      send_error = e.what();
    }
    std::string reply;
    try {
      reply = kxserv::ReadFrame(fd, timeout_ms);
    } catch (const kxserv::SocketError&) {
      if (!send_error.empty()) throw kxserv::SocketError(send_error);
      throw;
    }
    close(fd);
    PrintReply(reply);
    return Succeeded(reply) ? 0 : kExitFailed;
  } catch (const Usage& usage) {
    std::fprintf(stderr, "kxctl: %s\n", usage.reason.c_str());
    return kExitUsage;
  } catch (const kxserv::SocketError& e) {
    std::fprintf(stderr, "kxctl: %s\n", e.what());
    return kExitConnection;
  }
}
