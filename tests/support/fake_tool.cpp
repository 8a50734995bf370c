#include <boost/filesystem.hpp>
#include <string>
#include <vector>

#include "kxtest.h"

namespace kxtest {
namespace {

constexpr const char* kBinDir = "/opt/korvex/bin/";

// The fake's directive format (tests/fake/kxfake.cpp): backslash and line
// break escaped.
std::string Escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace

void InstallFakeTool(const std::string& name, const FakeBehaviour& behaviour) {
  const std::string tool = kBinDir + name;
  boost::filesystem::create_directories(kBinDir);
  boost::filesystem::copy_file(
      KX_FAKE_TOOL_PATH, tool,
      boost::filesystem::copy_options::overwrite_existing);
  boost::filesystem::permissions(tool, boost::filesystem::perms(0755));
  std::string text = "exit " + std::to_string(behaviour.exit_code) + "\n";
  text += "signal " + std::to_string(behaviour.kill_signal) + "\n";
  text += std::string("nonl ") +
          (behaviour.last_line_without_newline ? "1" : "0") + "\n";
  for (const auto& line : behaviour.lines) text += "line " + Escape(line) + "\n";
  for (const auto& file : behaviour.create_files) {
    text += "file " + Escape(file) + "\n";
  }
  WriteFile(tool + ".behaviour", text);
}

std::vector<std::vector<std::string>> FakeToolCalls(const std::string& name) {
  const std::string path = kBinDir + name + ".calls";
  std::vector<std::vector<std::string>> calls;
  if (!Exists(path)) return calls;
  const std::string data = ReadFile(path);
  std::size_t pos = 0;
  auto next_field = [&](std::string* field) {
    const auto end = data.find('\0', pos);
    if (end == std::string::npos) return false;
    *field = data.substr(pos, end - pos);
    pos = end + 1;
    return true;
  };
  std::string count;
  while (pos < data.size() && next_field(&count)) {
    std::vector<std::string> args;
    const unsigned long n = std::stoul(count);
    for (unsigned long i = 0; i < n; ++i) {
      std::string arg;
      if (!next_field(&arg)) break;
      args.push_back(arg);
    }
    calls.push_back(args);
  }
  return calls;
}

}  // namespace kxtest
