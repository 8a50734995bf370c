// kxhost: loads a plug-in and drives its entry points from the command line
// (docs/protocol.md).
#include <libintl.h>

#include <clocale>
#include <cstdio>
#include <exception>
#include <iostream>

#include "command_line.h"
#include "lib/plugin_loader.h"
#include "lib/runtime.h"
#include "lib/sandbox.h"
#include "steps.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

int Fail(const std::string& reason) {
  std::fprintf(stderr, "kxhost: %s\n", reason.c_str());
  return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  kxhost::CommandLine line;
  try {
    line = kxhost::ParseCommandLine(argc, argv);
  } catch (const kxhost::UsageError& e) {
    return Fail(e.what());
  }
  if (line.help) {
    std::cout << kxhost::UsageText();
    return 0;
  }

  kxhost::RuntimeOptions options;
  options.mirror_to_stderr = line.verbose;
  if (!line.root.empty()) {
    try {
      kxhost::EnterSandboxedRoot(line.root, &options);
    } catch (const std::runtime_error& e) {
      return Fail(e.what());
    }
    options.events_file = "/opt/korvex/var/log/kxhost-events.log";
  }
  kxhost::Configure(options);

  // The plug-in translates its texts with plain gettext().
  std::setlocale(LC_ALL, "");
  bindtextdomain("korvex-aec", "/opt/korvex/share/locale");
  textdomain("korvex-aec");

  std::vector<kxhost::PreparedStep> steps;
  try {
    steps = kxhost::PrepareSteps(line.steps);
  } catch (const kxhost::InputError& e) {
    return Fail(e.what());
  }

  bool needs_plugin = false;
  for (const auto& step : line.steps) needs_plugin |= kxhost::NeedsPlugin(step);
  if (!needs_plugin) return kxhost::RunSteps(nullptr, steps);

  kxhost::PluginEntryPoints plugin;
  try {
    plugin = kxhost::LoadPlugin(line.plugin);
  } catch (const kxhost::LoadError& e) {
    return Fail(e.what());
  }
  if (plugin.init() != 0) {
    std::fprintf(stderr, "kxhost: plugin_init failed (see the log)\n");
    return kExitFailure;
  }
  const int code = kxhost::RunSteps(&plugin, steps);
  plugin.exit();
  return code;
}
