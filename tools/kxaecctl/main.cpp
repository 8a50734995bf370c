// kxaecctl: the rule-control tool of application execution control.
// docs/tools.md describes its commands, options, exit codes and files.
#include <iostream>
#include <string>
#include <vector>

#include "host/log.h"
#include "run.h"

int main(int argc, char** argv) {
  // The plug-in code the tool shares reports why it refuses a file in the
  // host's log (error priority); the person running the tool sees it too.
  set_log_line_observer([](int priority, const std::string& line) {
    if (priority > 3) return;
    const auto text = line.find(": ");
    std::cerr << "kxaecctl: "
              << (text == std::string::npos ? line : line.substr(text + 2))
              << "\n";
  });
  const int code = aectool::Run(std::vector<std::string>(argv + 1, argv + argc),
                                std::cout, std::cerr);
  std::cout.flush();
  set_log_line_observer(nullptr);
  return code;
}
