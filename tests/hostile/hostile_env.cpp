#include "hostile_env.h"

#include <stdlib.h>

#include <boost/filesystem.hpp>
#include <cstdint>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "journal_generator.h"
#include "kxtest.h"
#include "lib/xml_document.h"

namespace hostile {
namespace {

constexpr const char* kJournal = "var/log/audit_logs.db";

std::unique_ptr<kxharness::ScratchTmpfs> g_scratch;
std::string g_base;
int g_tests = 0;

std::string Replace(std::string text, const std::string& from,
                    const std::string& to) {
  for (auto at = text.find(from); at != std::string::npos;
       at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// A small journal of three events for the journal commands to read.
void MakeJournal(const std::string& path) {
  const auto row = kxjournal::WriterRow;
  kxjournal::WriteJournal(
      path, {row(1050, 1795256130, "/usr/bin/make", "/usr/bin/make", "alice",
                 "devs", 0),
             row(1052, 1795256131, "/usr/bin/make", "/lib/libc.so.6", "alice",
                 "devs", 1),
             row(1054, 1795256132, "/usr/bin/ssh", "/etc/ssh/ssh_config",
                 "bob", "ops", 0)});
}

const char* const kSeed = R"({"policies": [
  {"group": "aec", "name": "whitelist", "source": "local", "value": []},
  {"group": "aec", "name": "exceptions", "source": "local",
   "value": ["/opt/app/bin/tool"]},
  {"group": "aec", "name": "rules", "source": "local", "value": [
    {"name": "r1", "all_allowed": "false", "extended": "false",
     "system": "false", "enable": "true", "user_list": ["alice"],
     "group_list": ["devs"], "resource_list": ["/usr/bin/make"]}]}
]})";

}  // namespace

void HostileTest::SetUpTestSuite() {
  g_scratch = std::make_unique<kxharness::ScratchTmpfs>("kxhostile-", "512m");
  g_base = g_scratch->dir() + "/base";
  boost::filesystem::create_directories(g_base + "/bin");
  boost::filesystem::create_directories(g_base + "/var/log");
  kxharness::CopyFile(KX_FAKE_TOOL_PATH, g_base + "/bin/kxaecctl");
  kxharness::CopyFile(KX_FAKE_TOOL_PATH, g_base + "/bin/kxaide");
  // The rule-control tool refuses everything, so that a reply shows the
  // tool's verdict reaching the client; the integrity tool agrees.
  kxtest::WriteFile(g_base + "/bin/kxaecctl.behaviour",
                    "exit 2\nline rejected by the test tool\n");
  kxtest::WriteFile(g_base + "/bin/kxaide.behaviour", "exit 0\n");
  // Sealed already: the fake integrity tool writes no database, so the
  // seal a new kxhost root gets could not be made with it.
  kxtest::WriteFile(g_base + "/etc/aec/crc-rule.db", "");
  MakeJournal(g_base + "/" + kJournal);
  const std::string seed = g_scratch->dir() + "/seed.json";
  kxtest::WriteFile(seed, kSeed);
  const auto result = kxharness::RunKxhost(
      {"--root", g_base, "--plugin", KX_PLUGIN_PATH, "import-policies", seed});
  if (result.exit_code != 0) {
    throw std::runtime_error("cannot prepare the base root: " + result.err);
  }
  boost::filesystem::remove(g_base + "/bin/kxaecctl.calls");
  boost::filesystem::remove(g_base + "/bin/kxaide.calls");
}

void HostileTest::TearDownTestSuite() { g_scratch.reset(); }

void HostileTest::SetUp() {
  work_ = g_scratch->dir() + "/test-" + std::to_string(++g_tests);
  root_ = work_ + "/root";
  outside_ = work_ + "/outside";
  marker_ = outside_ + "/pwned";
  kxharness::CopyTree(g_base, root_);
  boost::filesystem::create_directories(outside_);
  kxtest::WriteFile(outside_ + "/keep", "a file a payload might remove\n");
  exec_log_ = work_ + "/starts.log";
  value_ = Replace(Replace(GetParam().text, "@M@", marker_), "@D@", outside_);
  root_before_ = RootSnapshot();
  outside_before_ = kxharness::Snapshot(outside_);
  journal_before_ = kxharness::Sha256(
      kxharness::ReadFileOr(root_ + "/" + kJournal, "<missing>"));
}

void HostileTest::TearDown() { kxharness::RemoveTree(work_); }

ReadBack HostileTest::Read() const {
  ReadBack back;
  const std::string escaped = XmlEscape(value_);
  try {
    const auto doc =
        kxhost::ParseXml("<p a=\"" + escaped + "\"><e>" + escaped + "</e></p>");
    std::unique_ptr<char[]> attribute(doc->GetAttribute("a"));
    std::unique_ptr<char[]> element(doc->GetParam("e"));
    back.attribute = attribute ? attribute.get() : "";
    back.element = element ? element.get() : "";
    back.parses = true;
  } catch (const std::runtime_error&) {
    back.parses = false;
  }
  return back;
}

kxharness::ProgramResult HostileTest::Run(
    const std::vector<std::string>& steps) {
  std::vector<std::string> args = {"--root", root_, "--plugin", KX_PLUGIN_PATH,
                                   "-v"};
  args.insert(args.end(), steps.begin(), steps.end());
  std::string asan = "verify_asan_link_order=0";
  if (const char* old = getenv("ASAN_OPTIONS")) {
    asan = std::string(old) + ":" + asan;
  }
  return kxharness::RunKxhost(args, {{"LD_PRELOAD", KX_EXEC_LOG_SHIM},
                                     {"KXEXEC_LOG", exec_log_},
                                     {"ASAN_OPTIONS", asan}});
}

std::string HostileTest::StepFile(const std::string& text) {
  const std::string path =
      work_ + "/step-" + std::to_string(++step_files_) + ".txt";
  kxtest::WriteFile(path, text);
  return path;
}

std::vector<std::vector<std::string>> HostileTest::ToolCalls() const {
  // The fake's record format (tests/fake/kxfake.cpp): a count, a NUL, then
  // each argument followed by a NUL.
  const std::string data =
      kxharness::ReadFileOr(root_ + "/bin/kxaecctl.calls", "");
  std::vector<std::vector<std::string>> calls;
  std::size_t pos = 0;
  auto field = [&](std::string* out) {
    const auto end = data.find('\0', pos);
    if (end == std::string::npos) return false;
    *out = data.substr(pos, end - pos);
    pos = end + 1;
    return true;
  };
  std::string count;
  while (pos < data.size() && field(&count)) {
    std::vector<std::string> args(std::stoul(count));
    for (auto& arg : args) {
      if (!field(&arg)) break;
    }
    calls.push_back(args);
  }
  return calls;
}

std::vector<std::string> HostileTest::Starts() const {
  std::vector<std::string> lines;
  std::istringstream in(kxharness::ReadFileOr(exec_log_, ""));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

kxharness::Tree HostileTest::RootSnapshot() const {
  return kxharness::Snapshot(root_, [](const std::string& path) {
    return path == "bin/kxaecctl.calls" || path == "bin/kxaide.calls" ||
           path == "var/log/kxhost-events.log" || path == "usr/db";
  });
}

void HostileTest::ExpectNoSideEffects(bool config_may_change) {
  // Only the agent tools, and the one fixed command line that reloads the
  // whitelist (it goes through a shell, which then starts the tool).
  for (const std::string& start : Starts()) {
    const bool tool = start == "execv\t/opt/korvex/bin/kxaecctl" ||
                      start == "execv\t/opt/korvex/bin/kxaide" ||
                      start == "execve\t/opt/korvex/bin/kxaecctl";
    const bool reload = start == "system\t/opt/korvex/bin/kxaecctl reload -w";
    EXPECT_TRUE(tool || reload) << "a program was started: " << start;
  }
  EXPECT_FALSE(kxtest::Exists(marker_)) << "a payload ran: " << marker_;
  EXPECT_EQ(
      kxharness::Differences(outside_before_, kxharness::Snapshot(outside_)),
      std::vector<std::string>())
      << "something outside the install root changed";
  EXPECT_EQ(kxharness::Sha256(
                kxharness::ReadFileOr(root_ + "/" + kJournal, "<missing>")),
            journal_before_)
      << "the audit journal changed";
  for (const std::string& change :
       kxharness::Differences(root_before_, RootSnapshot())) {
    const std::string path = change.substr(change.find(' ') + 1);
    const bool in_config = path.rfind("etc/aec/", 0) == 0;
    EXPECT_TRUE(config_may_change && in_config)
        << "the install root changed: " << change;
  }
}

std::string XmlEscape(const std::string& text) {
  return kxhost::EscapeMarkup(text);
}

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (u < 0x20) {
      static const char kHex[] = "0123456789abcdef";
      out += "\\u00";
      out += kHex[u >> 4];
      out += kHex[u & 15];
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::vector<std::string> SplitReplies(const std::string& out) {
  std::vector<std::string> replies;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("<reply", 0) == 0) replies.emplace_back();
    if (!replies.empty()) replies.back() += line + "\n";
  }
  return replies;
}

std::string ValueName(const ::testing::TestParamInfo<HostileValue>& param) {
  return param.param.label;
}

}  // namespace hostile
