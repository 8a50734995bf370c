#include "learning_options.h"

#include <grp.h>
#include <pwd.h>

#include <exception>

#include "tool_error.h"

namespace aectool {

LongOptions ParseLongOptions(const std::vector<std::string>& args,
                             const std::set<std::string>& valued,
                             const std::set<std::string>& flags) {
  LongOptions options;
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (options.Has(arg)) {
      throw ToolError(Exit::kInvalidArgument, arg + " given twice");
    }
    if (valued.count(arg) != 0) {
      if (i + 1 >= args.size() || args[i + 1].empty()) {
        throw ToolError(Exit::kInvalidArgument, arg + " needs a value");
      }
      options.values[arg] = args[++i];
    } else if (flags.count(arg) != 0 || arg == "--help") {
      options.flags.insert(arg);
    } else {
      throw ToolError(Exit::kInvalidArgument,
                      "unexpected argument '" + arg + "'");
    }
  }
  return options;
}

int ReportFailures(const std::string& word, std::ostream& err,
                   const std::function<int()>& body) {
  try {
    return body();
  } catch (const ToolError& e) {
    err << "kxaecctl: " << word << ": " << e.what() << "\n";
    return e.code();
  } catch (const std::exception& e) {
    err << "kxaecctl: " << word << ": " << e.what() << "\n";
    return Exit::kUnknownError;
  }
}

std::vector<gid_t> GroupsOfUser(const std::string& user) {
  std::vector<gid_t> result;
  struct passwd* pw = ::getpwnam(user.c_str());
  if (pw == nullptr) return result;
  const gid_t primary = pw->pw_gid;
  int count = 64;
  std::vector<gid_t> gids(count);
  if (::getgrouplist(user.c_str(), primary, gids.data(), &count) < 0) {
    gids.resize(count);
    ::getgrouplist(user.c_str(), primary, gids.data(), &count);
  }
  gids.resize(count);
  result.push_back(primary);
  for (gid_t gid : gids) {
    if (gid != primary) result.push_back(gid);
  }
  return result;
}

}  // namespace aectool
