#include "command_line.h"

#include <cstring>

#include "shown_object.h"
#include "tool_error.h"

namespace aectool {
namespace {

constexpr const char* kValueMark = "--";

struct CommandSpec {
  const char* word;
  Command command;
  const char* options;  // the option letters the command takes
  const char* help;
};

// Every command takes -v; the check (-C) is refused by confirm, which
// changes no configuration.
const CommandSpec kCommands[] = {
    {
        "add",
        Command::kAdd,
        "CvnugrfaXDdR",
        "Usage: kxaecctl add -n NAME [-u USER...] [-g GROUP...] [-a]\n"
        "                    [-r PATH...] [-f LIST] [-R] [-d] [-X] [-D] [-C] "
        "[-v]\n"
        "       kxaecctl add [-u USER...] [-g GROUP...] [-r PATH...] [-f "
        "LIST]\n"
        "                    [-R] [-C] [-v]\n"
        "\n"
        "With -n: creates the rule NAME, or adds to it when it exists.\n"
        "  A new rule needs resources (-r, -f); it applies to the users and\n"
        "  groups given, or to all users with -a; it is switched on unless "
        "-D.\n"
        "  An existing rule gets the users, groups and resources added; -a\n"
        "  makes it apply to all users, -X extended, -D switched off.\n"
        "Without -n: -u and -g add to the whitelist, -r and -f add resource\n"
        "  exceptions.\n"
        "\n"
        "  -r PATH...  resources: absolute paths that exist; a directory "
        "stands\n"
        "              for the regular files in it, with -R for all beneath "
        "it\n"
        "  -f LIST     a file naming resources, one absolute path per line\n"
        "              (\"#\" starts a comment)\n"
        "  -d          do not add what the resources depend on (by default "
        "the\n"
        "              shared libraries and interpreter that a program or\n"
        "              library loads are added to the rule as well)\n"
        "  -X          extended rule\n"
        "  -D          the rule is switched off\n",
    },
    {"rm", Command::kRm, "CvnugrA",
     "Usage: kxaecctl rm -n NAME... [-C] [-v]\n"
     "       kxaecctl rm -n NAME [-u USER...] [-g GROUP...] [-r PATH...]\n"
     "       kxaecctl rm -A\n"
     "       kxaecctl rm [-u USER...] [-g GROUP...] [-r PATH...]\n"
     "\n"
     "  -n NAME...  removes the named rules (all or none)\n"
     "  -n NAME with -u, -g, -r: removes those members from the rule\n"
     "  -A          removes every rule except the system rules\n"
     "  without -n: -u and -g leave the whitelist, -r the resource\n"
     "              exceptions\n"},
    {"update", Command::kUpdate, "CvnugrfaXDdR",
     "Usage: kxaecctl update -n NAME... [-u USER...] [-g GROUP...] [-a]\n"
     "                       [-r PATH...] [-f LIST] [-R] [-d] [-X] [-D]\n"
     "\n"
     "Replaces the members of the rules: -u and -g (together) replace the\n"
     "users and groups, -a makes the rule apply to all users instead, -r and\n"
     "-f (with -R, -d as for add) replace the resources. What is not given\n"
     "stays. -X makes the rule extended, -D switches it off.\n"},
    {"enable", Command::kEnable, "Cvn",
     "Usage: kxaecctl enable -n NAME... [-C] [-v]\n"
     "\n"
     "Switches the rules on.\n"},
    {"disable", Command::kDisable, "Cvn",
     "Usage: kxaecctl disable -n NAME... [-C] [-v]\n"
     "\n"
     "Switches the rules off; they stay in the rule set.\n"},
    {"rename", Command::kRename, "CvnN",
     "Usage: kxaecctl rename -n OLD -N NEW [-C] [-v]\n"
     "\n"
     "Gives the rule OLD the name NEW (and the file NEW.conf).\n"},
    {"export", Command::kExport, "Cvnf",
     "Usage: kxaecctl export -n NAME -f FILE [-C] [-v]\n"
     "\n"
     "Writes the rule's file content to FILE, replacing FILE whole. FILE is\n"
     "an absolute path outside /opt/korvex or inside /opt/korvex/var/export;\n"
     "an existing FILE must be a regular file.\n"},
    {"reload", Command::kReload, "Cvw",
     "Usage: kxaecctl reload [-C] [-v]\n"
     "       kxaecctl reload -w [-C] [-v]\n"
     "\n"
     "Checks the whole configuration on disk (rule files, whitelist,\n"
     "resource exceptions) and loads it; when anything is wrong nothing is\n"
     "loaded and the previous loaded set stays. Then seals the checksum\n"
     "database over what it loaded: reload is how a configuration changed\n"
     "on disk is accepted. With -C the files that changed since the last\n"
     "seal are named on standard error.\n"
     "  -w  the whitelist only: the rules and exceptions stay as loaded\n"},
    {"restart", Command::kRestart, "Cv",
     "Usage: kxaecctl restart [-C] [-v]\n"
     "\n"
     "Compiles and loads the rules, the whitelist and the exceptions as they\n"
     "are on disk (used when control is switched on). Unlike reload it does\n"
     "not seal the checksum database; with -C it refuses a configuration\n"
     "that fails the integrity check.\n"},
    {"confirm", Command::kConfirm, "v",
     "Usage: kxaecctl confirm\n"
     "\n"
     "Confirms hard mode (the confirmation the login warning asks for).\n"
     "Exit 0 when hard mode is confirmed (or nothing awaited confirmation),\n"
     "3 when it can no longer be confirmed: switch hard mode off and on\n"
     "again to start a new confirmation.\n"},
};

constexpr const char* kToolHelpHead =
    "Usage: kxaecctl COMMAND [OPTION...]\n"
    "       kxaecctl COMMAND --help\n"
    "\n"
    "The rule-control tool of application execution control.\n"
    "\n"
    "Commands:\n"
    "  add      create a rule or add to it; add to the whitelist or the\n"
    "           resource exceptions\n"
    "  rm       remove rules, members of a rule, whitelist members or\n"
    "           resource exceptions\n"
    "  update   replace the members of a rule\n"
    "  enable   switch rules on\n"
    "  disable  switch rules off\n"
    "  rename   rename a rule\n"
    "  export   write a rule to a file\n"
    "  reload   load the configuration on disk (-w: the whitelist) and seal "
    "it\n"
    "  restart  load the configuration on disk\n"
    "  confirm  confirm hard mode\n"
    "  baseline the system rule of the installed packages (see its --help)\n"
    "  propose  rules learned from the journal's denials (see its --help)\n"
    "  simulate what hard mode would deny (see its --help)\n";

constexpr const char* kOptionsHelp =
    "\n"
    "Options (each value option takes the arguments up to the next option;\n"
    "\"--\" makes the next argument a value even when it starts with \"-\"):\n"
    "  -C  check the integrity of the configuration first\n"
    "  -v  print each offending object on its own line\n"
    "  -n  rule names        -u  users         -g  groups\n"
    "  -r  resources         -f  file          -N  new rule name\n"
    "  -A  all rules         -a  all users     -X  extended\n"
    "  -D  switched off      -d  no dependencies\n"
    "  -R  directories recursively            -w  whitelist\n"
    "\n"
    "Exit codes: docs/tools.md; 0 is success.\n";

const CommandSpec* FindCommand(const std::string& word) {
  for (const auto& spec : kCommands) {
    if (word == spec.word) return &spec;
  }
  return nullptr;
}

bool IsOption(const std::string& arg) {
  return arg.size() == 2 && arg[0] == '-' &&
         ((arg[1] >= 'a' && arg[1] <= 'z') || (arg[1] >= 'A' && arg[1] <= 'Z'));
}

[[noreturn]] void Invalid(const std::string& reason) {
  throw ToolError(Exit::kInvalidArgument, reason);
}

// Names, users, groups, paths and files never hold a control character: a
// line break or tab would split the line-based records (the loaded set, the
// tool's output) and an escape sequence would reach a terminal. Such a value
// is refused, never shortened or changed.
void RefuseControlCharacters(const std::string& value) {
  for (const unsigned char c : value) {
    if (IsControlCharacter(c)) {
      Invalid("a value holds a control character: '" + ShownObject(value) +
              "'");
    }
  }
}

// Where an option's values go, or null for a flag.
std::vector<std::string>* ListOf(Invocation& invocation, char letter) {
  switch (letter) {
    case 'n':
      return &invocation.names;
    case 'u':
      return &invocation.users;
    case 'g':
      return &invocation.groups;
    case 'r':
      return &invocation.resources;
    default:
      return nullptr;
  }
}

bool* FlagOf(Invocation& invocation, char letter) {
  switch (letter) {
    case 'C':
      return &invocation.check;
    case 'v':
      return &invocation.verbose;
    case 'w':
      return &invocation.whitelist;
    case 'A':
      return &invocation.all_rules;
    case 'a':
      return &invocation.all_users;
    case 'X':
      return &invocation.extended;
    case 'D':
      return &invocation.disable;
    case 'd':
      return &invocation.no_depend;
    case 'R':
      return &invocation.recursive;
    default:
      return nullptr;
  }
}

}  // namespace

Invocation ParseCommandLine(const std::vector<std::string>& args) {
  Invocation invocation;
  if (args.empty() || args[0] == "--help") {
    invocation.help = true;
    return invocation;
  }
  const CommandSpec* spec = FindCommand(args[0]);
  if (spec == nullptr) {
    Invalid("unknown command '" + ShownObject(args[0]) + "'");
  }
  invocation.command = spec->command;
  invocation.word = spec->word;

  // The option whose values the next plain arguments are; 0 after a flag.
  char current = 0;
  std::size_t values_of_current = 0;
  auto finish_current = [&]() {
    if (current != 0 && values_of_current == 0) {
      Invalid(std::string("-") + current + " needs a value");
    }
  };
  for (std::size_t i = 1; i < args.size(); ++i) {
    if (args[i] == "--help") {
      invocation.help = true;
      continue;
    }
    bool marked_value = false;
    if (args[i] == kValueMark) {
      // "--" makes the next argument a value of the current option, even
      // one that looks like an option ("-A", "--help", "--").
      if (current == 0 || i + 1 == args.size()) {
        Invalid("'--' must stand between a value option and its value");
      }
      marked_value = true;
      ++i;
    }
    const std::string& arg = args[i];
    if (marked_value || !IsOption(arg)) {
      if (current == 0) {
        Invalid("unexpected argument '" + ShownObject(arg) + "'");
      }
      RefuseControlCharacters(arg);
      if (std::vector<std::string>* list = ListOf(invocation, current)) {
        list->push_back(arg);
      } else {
        std::optional<std::string>& single =
            current == 'f' ? invocation.file : invocation.new_name;
        if (single) Invalid(std::string("-") + current + " takes one value");
        single = arg;
      }
      ++values_of_current;
      continue;
    }
    finish_current();
    const char letter = arg[1];
    if (std::strchr(spec->options, letter) == nullptr) {
      if (FlagOf(invocation, letter) == nullptr &&
          ListOf(invocation, letter) == nullptr && letter != 'f' &&
          letter != 'N') {
        Invalid("unknown option " + arg);
      }
      Invalid(std::string(spec->word) + " does not take " + arg);
    }
    if (bool* flag = FlagOf(invocation, letter)) {
      *flag = true;
      current = 0;
    } else {
      current = letter;
      values_of_current = 0;
    }
  }
  if (!invocation.help) finish_current();
  return invocation;
}

std::string ToolHelp() { return std::string(kToolHelpHead) + kOptionsHelp; }

std::string CommandHelp(Command command) {
  for (const auto& spec : kCommands) {
    if (spec.command == command) return std::string(spec.help) + kOptionsHelp;
  }
  return ToolHelp();
}

}  // namespace aectool
