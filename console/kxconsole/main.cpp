// kxconsole: the web console for administrators of execution control.
#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "common/console_config.h"
#include "common/frame.h"
#include "common/key_value_file.h"
#include "console_app.h"
#include "http_server.h"

namespace {

const char kUsage[] =
    "Usage: kxconsole [--root DIR] [--config FILE] [--assets DIR] [--port N]\n"
    "                 [--foreground] [-v] [--help]\n"
    "\n"
    "Serves the web console of execution control. It talks to kxserv over\n"
    "its socket and reads the audit journal; log in with the one-time link\n"
    "that `kxctl console-login` prints.\n"
    "\n"
    "  --root DIR     install root (default /opt/korvex): socket, journal,\n"
    "                 configuration and assets below it\n"
    "  --config FILE  configuration (default ROOT/etc/kxconsole.conf)\n"
    "  --assets DIR   page assets (default ROOT/share/kxconsole)\n"
    "  --port N       listen on port N instead of the configured one (0: any\n"
    "                 free port)\n"
    "  --foreground   accepted for symmetry with kxserv; kxconsole never\n"
    "                 detaches (systemd runs it as a simple service)\n"
    "  -v             log lines to standard error too\n"
    "  --help         this text\n"
    "\n"
    "The first line on standard output is \"kxconsole: listening on URL\".\n"
    "Exit codes: 0 stopped by SIGTERM or SIGINT, 1 cannot listen,\n"
    "2 usage or configuration error.\n";

bool g_verbose = false;

void Log(int priority, const std::string& line) {
  syslog(priority, "%s", line.c_str());
  if (g_verbose) std::fprintf(stderr, "kxconsole: %s\n", line.c_str());
}

int Usage(const std::string& error) {
  std::fprintf(stderr, "kxconsole: %s\n%s", error.c_str(), kUsage);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string root = "/opt/korvex", config_path, assets;
  int port = -1;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    std::string text;
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--root") {
      if (!value(&root) || root.empty())
        return Usage("--root needs a directory");
    } else if (arg == "--config") {
      if (!value(&config_path)) return Usage("--config needs a file");
    } else if (arg == "--assets") {
      if (!value(&assets)) return Usage("--assets needs a directory");
    } else if (arg == "--port") {
      if (!value(&text) || text.empty() || text.size() > 5 ||
          text.find_first_not_of("0123456789") != std::string::npos ||
          std::stoi(text) > 65535) {
        return Usage("--port needs a number from 0 to 65535");
      }
      port = std::stoi(text);
    } else if (arg == "--foreground") {
    } else if (arg == "-v") {
      g_verbose = true;
    } else {
      return Usage("unknown argument '" + arg + "'");
    }
  }
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  if (config_path.empty()) config_path = kxserv::ConsoleConfigPath(root);
  if (assets.empty()) assets = root + "/share/kxconsole";

  openlog("kxconsole", LOG_PID, LOG_DAEMON);
  kxconsole::AppSettings settings;
  try {
    settings.config = kxserv::ReadConsoleConfig(config_path);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kxconsole: %s\n", e.what());
    return 2;
  }
  if (port >= 0) settings.config.port = port;
  settings.socket_path = kxserv::SocketPath(root);
  settings.journal_path = root + "/var/log/audit_logs.db";
  settings.status_path = root + "/var/run/kxaecd.status";
  settings.exceptions_path = root + "/etc/aec/resource-exception.conf";
  settings.assets_dir = assets;

  std::unique_ptr<kxconsole::ConsoleApp> app;
  try {
    app = std::make_unique<kxconsole::ConsoleApp>(settings);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kxconsole: %s\n", e.what());
    return 2;
  }
  app->set_logger([](const std::string& line) { Log(LOG_INFO, line); });

  std::unique_ptr<kxconsole::HttpServer> server;
  try {
    server =
        std::make_unique<kxconsole::HttpServer>(app.get(), settings.config);
  } catch (const std::exception& e) {
    Log(LOG_ERR, e.what());
    std::fprintf(stderr, "kxconsole: %s\n", e.what());
    return 1;
  }
  server->set_logger([](const std::string& line) { Log(LOG_WARNING, line); });

  std::string host = settings.config.listen_address;
  if (host.find(':') != std::string::npos) host = "[" + host + "]";
  const std::string url = std::string(server->tls() ? "https" : "http") +
                          "://" + host + ":" + std::to_string(server->port()) +
                          "/";
  std::printf("kxconsole: listening on %s\n", url.c_str());
  std::fflush(stdout);
  Log(LOG_INFO, "listening on " + url + ", kxserv at " + settings.socket_path);

  const int signal = server->Run();
  Log(LOG_INFO, "stopped by signal " + std::to_string(signal));
  return 0;
}
