#include "learning_options.h"

#include "tool_error.h"

namespace aectool {

LongOptions ParseLongOptions(const std::vector<std::string>& args,
                             const std::set<std::string>& valued,
                             const std::set<std::string>& flags) {
  LongOptions options;
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (options.Has(arg)) {
      throw ToolError(KxAecCtl::kInvalidArgument, arg + " given twice");
    }
    if (valued.count(arg) != 0) {
      if (i + 1 >= args.size() || args[i + 1].empty()) {
        throw ToolError(KxAecCtl::kInvalidArgument, arg + " needs a value");
      }
      options.values[arg] = args[++i];
    } else if (flags.count(arg) != 0 || arg == "--help") {
      options.flags.insert(arg);
    } else {
      throw ToolError(KxAecCtl::kInvalidArgument,
                      "unexpected argument '" + arg + "'");
    }
  }
  return options;
}

}  // namespace aectool
