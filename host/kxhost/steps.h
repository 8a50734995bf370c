// Running kxhost's steps against a loaded plug-in.
#pragma once

#include <boost/shared_ptr.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "command_line.h"
#include "host/policy_manager.h"
#include "lib/plugin_loader.h"
#include "lib/xml_document.h"

namespace kxhost {

// A step with its input read and parsed beforehand, so that a bad file stops
// kxhost before the plug-in is called at all.
struct PreparedStep {
  Step step;
  boost::shared_ptr<XmlDocument> document;  // exec, set-policies
  parsed_json_data_t json;                  // import-policies
  std::string password;                     // store-password
};

// An input that cannot be read or parsed; what() is a one-line reason.
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Reads every step's file (standard input for "exec -" and store-password,
// read once). Throws InputError.
std::vector<PreparedStep> PrepareSteps(const std::vector<Step>& steps);

// Runs the steps in order and returns the exit code they add up to: 0, 1 (an
// entry point or a store failed; beats 3) or 3 (a request was not answered).
// `plugin` may be null when no step needs it.
int RunSteps(const PluginEntryPoints* plugin,
             std::vector<PreparedStep>& steps);

}  // namespace kxhost
