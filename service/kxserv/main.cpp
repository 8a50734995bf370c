// kxserv: the agent's long-running service. Loads the plug-in once, serves
// management clients on a Unix socket, applies policy documents from the
// spool, and carries the plug-in's notifications to clients and users
// (docs/protocol.md, "The service").
#include <libintl.h>
#include <signal.h>
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "common/frame.h"
#include "config.h"
#include "host/ixml.h"
#include "lib/daemon_signals.h"
#include "lib/plugin_loader.h"
#include "lib/runtime.h"
#include "lib/sandbox.h"
#include "log.h"
#include "notices.h"
#include "ready.h"
#include "server.h"
#include "worker.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

const char kUsage[] =
    "Usage: kxserv [--foreground] [--root DIR] [--plugin PATH] [--config "
    "FILE]\n"
    "              [-v]\n"
    "The Korvex agent's service: loads the execution control plug-in once and\n"
    "serves management clients on /opt/korvex/var/run/kxserv.sock.\n"
    "\n"
    "  --foreground   stay attached to the terminal (systemd runs it so too;\n"
    "                 without it kxserv also runs in the foreground: it never\n"
    "                 forks, a supervisor is expected)\n"
    "  --root DIR     run in a private mount namespace with DIR mounted at\n"
    "                 /opt/korvex (tests, demos); the socket is then\n"
    "                 DIR/var/run/kxserv.sock\n"
    "  --plugin PATH  the plug-in (default /opt/korvex/lib/libaec.so)\n"
    "  --config FILE  the service configuration\n"
    "                 (default /opt/korvex/etc/kxserv.conf)\n"
    "  -v             also write every log line to standard error\n"
    "  --help         this text\n"
    "\n"
    "Signals: SIGTERM or SIGINT finish the running request and stop;\n"
    "SIGHUP re-reads the configuration.\n"
    "Exit codes: 0 stopped by a signal; 1 the plug-in failed to start or the\n"
    "socket could not be opened; 2 usage, configuration or load error.\n";

struct Options {
  std::string root;
  std::string plugin = "/opt/korvex/lib/libaec.so";
  std::string config = kxserv::kConfigPath;
  bool verbose = false;
};

int Fail(const std::string& reason, int code = kExitUsage) {
  std::fprintf(stderr, "kxserv: %s\n", reason.c_str());
  return code;
}

std::string EventDocument(const kxhost::HostEvent& event) {
  auto document = XMLParserBoost::CreateEmptyXML();
  document->SetAttribute("kind", event.kind);
  if (event.kind == "update_clients") {
    document->AddValue("plugin", event.args.at(0), false);
  } else if (event.kind == "send_notify_systemwide") {
    document->AddValue("title", event.args.at(0), false);
    document->AddValue("text", event.args.at(1), false);
  } else if (event.kind == "block_station") {
    document->AddValue("reason", event.args.at(0), false);
    document->AddValue("now", event.args.at(1), false);
  }
  return document->ToString("event");
}

// The host services that reach beyond the process. Runs on the worker,
// inside the plug-in's call.
void OnHostEvent(kxserv::Server* server, const std::string* utmp_file,
                 const kxhost::HostEvent& event) {
  if (event.kind == "send_notify_systemwide") {
    const int reached =
        kxserv::NotifyTerminals(*utmp_file, event.args.at(0), event.args.at(1));
    kxserv::Log(LOG_NOTICE, "notice to logged-in users (" +
                                std::to_string(reached) + " terminals): " +
                                event.args.at(0) + ": " + event.args.at(1));
  } else if (event.kind == "block_station") {
    const bool now = event.args.at(1) == "1";
    const std::string& reason = event.args.at(0);
    if (!kxserv::RecordStationBlock(reason, now)) {
      kxserv::Log(LOG_ERR, std::string("cannot write ") + kxserv::kBlockFile);
    }
    kxserv::Log(LOG_CRIT, "station blocked" +
                              std::string(now ? "" : " (pending)") + ": " +
                              reason);
    kxserv::NotifyTerminals(*utmp_file, "This station is blocked", reason);
  } else if (event.kind == "send_message") {
    // The host printed the reply for its event; the answer to the client
    // is that very text, not a second printing of the same document.
    if (event.args.size() == 3) kxserv::NoteSentReply(event.args[2]);
    return;
  } else if (event.kind != "update_clients") {
    return;
  }
  server->Broadcast(EventDocument(event));
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](const char* name) -> std::string {
      if (i + 1 >= argc) throw std::string(name) + " needs a value";
      return argv[++i];
    };
    try {
      if (arg == "--help" || arg == "-h") {
        std::cout << kUsage;
        return 0;
      } else if (arg == "--foreground") {
      } else if (arg == "--root") {
        options.root = value("--root");
      } else if (arg == "--plugin") {
        options.plugin = value("--plugin");
      } else if (arg == "--config") {
        options.config = value("--config");
      } else if (arg == "-v") {
        options.verbose = true;
      } else {
        return Fail("unknown option " + arg + " (see --help)");
      }
    } catch (const std::string& reason) {
      return Fail(reason);
    }
  }

  kxhost::RuntimeOptions runtime;
  runtime.mirror_to_stderr = options.verbose;
  runtime.keep_events = false;
  runtime.host_ident = "kx_serv";
  if (!options.root.empty()) {
    // No events file: a long-running service would grow it with every
    // reply; the events reach the observer below.
    try {
      kxhost::EnterSandboxedRoot(options.root, &runtime);
    } catch (const std::runtime_error& e) {
      return Fail(e.what());
    }
  }
  kxhost::Configure(runtime);

  kxserv::Config config;
  try {
    config = kxserv::ReadConfig(options.config);
  } catch (const kxserv::ConfigError& e) {
    return Fail(e.what());
  }

  std::setlocale(LC_ALL, "");
  bindtextdomain("korvex-aec", "/opt/korvex/share/locale");
  textdomain("korvex-aec");

  kxhost::PluginEntryPoints plugin;
  try {
    plugin = kxhost::LoadPlugin(options.plugin);
  } catch (const kxhost::LoadError& e) {
    return Fail(e.what());
  }

  // The signals are taken by the loop's signalfd; every thread, the worker
  // included, must have them blocked from the start.
  kxhost::BlockDaemonSignals();

  kxserv::Worker worker;
  kxserv::Server server(plugin, &worker, options.config, config);
  const std::string utmp_file = config.utmp_file;
  kxhost::SetEventObserver([&server, &utmp_file](const kxhost::HostEvent& e) {
    OnHostEvent(&server, &utmp_file, e);
  });

  int init = 1;
  worker.RunAndWait([&] { init = plugin.init(); });
  if (init != 0) {
    kxserv::Log(LOG_ERR, "plugin_init failed; not serving");
    worker.Stop(nullptr);
    return Fail("plugin_init failed (see the log)", kExitFailure);
  }
  try {
    server.Open(kxserv::SocketPath("/opt/korvex"));
  } catch (const std::runtime_error& e) {
    kxserv::Log(LOG_ERR, e.what());
    worker.Stop([&] { plugin.exit(); });
    return Fail(e.what(), kExitFailure);
  }
  std::string reason;
  if (kxserv::ReadStationBlock(&reason)) {
    kxserv::Log(LOG_CRIT, "the station is blocked: " + reason + " (remove " +
                              std::string(kxserv::kBlockFile) + " to lift it)");
  }
  kxserv::Log(LOG_INFO, "serving " + kxserv::SocketPath("/opt/korvex"));
  kxserv::NotifyReady();
  server.Run([&] { plugin.exit(); });
  kxhost::SetEventObserver(nullptr);
  return 0;
}
