// Shared pieces of the journal tests: a sandboxed journal, requests run
// through the handlers, and views of the reply.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <boost/shared_ptr.hpp>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/ixml.h"
#include "support/kxtest.h"
#include "journal_generator.h"

namespace journal_test {

extern const char* const kJournalPath;  // /opt/korvex/var/log/audit_logs.db

// A request value: the text, possibly with NUL bytes in it.
using Params = std::vector<std::pair<std::string, std::string>>;

// The reply document after a handler ran.
struct Reply {
  boost::shared_ptr<IXml> doc;
  const boost::property_tree::ptree& Tree() const;
  // The child `command` of the reply; fails the test when absent.
  const boost::property_tree::ptree& Result(const std::string& command) const;
};

using Handler = void (*)(parsed_xml_data_t*);
Reply RunCommand(Handler handler, const std::string& command, const Params& params);

// Texts of the children named `name` of `tree`, in order.
std::vector<std::string> Values(const boost::property_tree::ptree& tree,
                                const std::string& name);
std::multiset<std::string> ValueSet(const boost::property_tree::ptree& tree,
                                    const std::string& name);
// Names of the element children of `tree`, in order.
std::vector<std::string> ChildNames(const boost::property_tree::ptree& tree);

// A row with the given event, program, framed object, user, group, success
// and time (seconds).
kxjournal::JournalRow Row(int event_id, const std::optional<std::string>& app,
                        const std::optional<std::string>& object,
                        const std::string& user = "alice",
                        const std::string& group = "staff", int success = 0,
                        long long time = 1000);

// Everything that proves a journal unchanged: its bytes, inode and times.
struct FileState {
  bool exists = false;
  std::string bytes;
  unsigned long long inode = 0;
  long long mtime_ns = 0;
  long long size = 0;
  bool operator==(const FileState& other) const;
};
FileState StateOf(const std::string& path);

// Every path below `dir` (recursively), relative to it.
std::set<std::string> ListTree(const std::string& dir);

// Paths of the open file descriptors of this process.
std::vector<std::string> OpenFiles();

// Runs `sql` with a plain connection (no guard) and returns the rows, each
// column as text ("<null>" for NULL).
std::vector<std::vector<std::string>> PlainQuery(const std::string& path,
                                                 const std::string& sql);

// Runs one request through the built kxhost and plug-in with `root` as the
// install root; returns the reply document's content (fails the test and
// returns an empty tree when kxhost fails or answers no reply).
boost::property_tree::ptree ExecThroughKxhost(const std::string& root,
                                              const std::string& request);

class JournalTest : public kxtest::SandboxTest {};

}  // namespace journal_test
