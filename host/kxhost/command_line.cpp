#include "command_line.h"

#include <map>

namespace kxhost {
namespace {

// Each step and the number of arguments it takes.
const std::map<std::string, std::size_t>& StepArity() {
  static const std::map<std::string, std::size_t> arity = {
      {"exec", 1},   {"policies", 0},       {"set-policies", 1},
      {"import-policies", 1}, {"info", 0},  {"state", 0},
      {"store-password", 0},  {"setting", 2},   {"seed", 0},
  };
  return arity;
}

}  // namespace

CommandLine ParseCommandLine(int argc, char** argv) {
  CommandLine line;
  int i = 1;
  for (; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--help" || word == "-h") {
      line.help = true;
    } else if (word == "-v") {
      line.verbose = true;
    } else if (word == "--root" || word == "--plugin") {
      if (i + 1 >= argc) throw UsageError(word + " needs an argument");
      const std::string value = argv[++i];
      if (value.empty()) throw UsageError(word + " needs a non-empty argument");
      (word == "--root" ? line.root : line.plugin) = value;
    } else if (!word.empty() && word[0] == '-') {
      throw UsageError("unknown option " + word);
    } else {
      break;
    }
  }
  if (line.help) return line;
  for (; i < argc; ++i) {
    Step step;
    step.name = argv[i];
    const auto found = StepArity().find(step.name);
    if (found == StepArity().end()) throw UsageError("unknown step " + step.name);
    for (std::size_t n = 0; n < found->second; ++n) {
      if (i + 1 >= argc) {
        throw UsageError("step " + step.name + " needs " +
                         std::to_string(found->second) + " argument(s)");
      }
      step.args.push_back(argv[++i]);
    }
    line.steps.push_back(step);
  }
  if (line.steps.empty()) throw UsageError("no step given (see --help)");
  return line;
}

std::string UsageText() {
  return
      "usage: kxhost [--root DIR] [--plugin PATH] [-v] STEP...\n"
      "\n"
      "Loads the plug-in, runs plugin_init, then the steps in order, then\n"
      "plugin_exit.\n"
      "\n"
      "options:\n"
      "  --root DIR      run in a private mount namespace with DIR mounted at\n"
      "                  /opt/korvex (a new DIR is made, seeded and sealed\n"
      "                  like a fresh installation); host events go to\n"
      "                  /opt/korvex/var/log/kxhost-events.log and kernel\n"
      "                  parameters to files below /opt/korvex/var/run/sysctl\n"
      "  --plugin PATH   the plug-in (default /opt/korvex/lib/libaec.so)\n"
      "  -v              mirror the host's log lines to standard error\n"
      "  -h, --help      this text\n"
      "\n"
      "steps:\n"
      "  exec FILE|-             run one request document (from standard input\n"
      "                          for -), print the reply document\n"
      "  policies                print the policies document\n"
      "  set-policies FILE       plugin_set_policies with a policies document\n"
      "  import-policies FILE    plugin_import_policies with a JSON document\n"
      "  info                    print the plug-in's name and description\n"
      "  state                   print the plug-in's busy flag\n"
      "  store-password          read a password from standard input and\n"
      "                          store it enciphered as the directory password\n"
      "                          (KXDomainPassword of network_plugin_config)\n"
      "  setting NAME VALUE      store a plain network_plugin_config row\n"
      "  seed                    make what a fresh installation has where it\n"
      "                          is missing (directories, empty whitelist,\n"
      "                          integrity list) and seal it with kxaide when\n"
      "                          no seal exists; the package's postinst runs it\n"
      "\n"
      "exit codes:\n"
      "  0  all steps done\n"
      "  1  an entry point reported failure, or a step could not store\n"
      "  2  usage or load error (bad option, missing or broken plug-in,\n"
      "     missing entry point, unreadable file, bad document)\n"
      "  3  a request was released without a reply\n";
}

bool NeedsPlugin(const Step& step) {
  return step.name != "store-password" && step.name != "setting" &&
         step.name != "seed";
}

}  // namespace kxhost
