#include "journal_fixture.h"

#include <dirent.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <memory>
#include <stdexcept>

#include "lib/xml_document.h"

namespace journal_test {

const char* const kJournalPath = "/opt/korvex/var/log/audit_logs.db";

const boost::property_tree::ptree& Reply::Tree() const {
  return kxhost::TreeOf(*doc);
}

const boost::property_tree::ptree& Reply::Result(
    const std::string& command) const {
  static const boost::property_tree::ptree kNone;
  const auto& tree = Tree();
  auto found = tree.find(command);
  EXPECT_NE(found, tree.not_found()) << "no '" << command << "' in the reply";
  return found == tree.not_found() ? kNone : found->second;
}

Reply RunCommand(Handler handler, const std::string& command, const Params& params) {
  auto request = XMLParserBoost::CreateEmptyXML();
  request->SetCommand(command);
  for (const auto& [name, value] : params) request->AddValue(name, value, false);
  parsed_xml_data_t record;
  record.xml = request;
  record.reply = XMLParserBoost::CreateEmptyXML();
  handler(&record);
  return Reply{record.reply};
}

std::vector<std::string> Values(const boost::property_tree::ptree& tree,
                                const std::string& name) {
  std::vector<std::string> values;
  for (const auto& child : tree) {
    if (child.first == name) values.push_back(child.second.data());
  }
  return values;
}

std::multiset<std::string> ValueSet(const boost::property_tree::ptree& tree,
                                    const std::string& name) {
  const auto values = Values(tree, name);
  return {values.begin(), values.end()};
}

std::vector<std::string> ChildNames(const boost::property_tree::ptree& tree) {
  std::vector<std::string> names;
  for (const auto& child : tree) {
    if (!child.first.empty() && child.first[0] != '<') {
      names.push_back(child.first);
    }
  }
  return names;
}

kxjournal::JournalRow Row(int event_id, const std::optional<std::string>& app,
                        const std::optional<std::string>& object,
                        const std::string& user, const std::string& group,
                        int success, long long time) {
  kxjournal::JournalRow row;
  row.event_id = event_id;
  row.date_time = std::to_string(time);
  row.app = app;
  row.object_name = object;
  row.username = user;
  row.groupname = group;
  row.success = success;
  return row;
}

bool FileState::operator==(const FileState& other) const {
  return exists == other.exists && bytes == other.bytes &&
         inode == other.inode && mtime_ns == other.mtime_ns &&
         size == other.size;
}

FileState StateOf(const std::string& path) {
  FileState state;
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return state;
  state.exists = true;
  state.inode = info.st_ino;
  state.mtime_ns = static_cast<long long>(info.st_mtim.tv_sec) * 1000000000LL +
                   info.st_mtim.tv_nsec;
  state.size = info.st_size;
  state.bytes = kxtest::ReadFile(path);
  return state;
}

std::set<std::string> ListTree(const std::string& dir) {
  std::set<std::string> paths;
  namespace fs = boost::filesystem;
  for (fs::recursive_directory_iterator it(dir), end; it != end; ++it) {
    paths.insert(it->path().string().substr(dir.size()));
  }
  return paths;
}

std::vector<std::string> OpenFiles() {
  std::vector<std::string> paths;
  DIR* fds = opendir("/proc/self/fd");
  if (fds == nullptr) throw std::runtime_error("cannot list /proc/self/fd");
  while (dirent* entry = readdir(fds)) {
    if (entry->d_name[0] == '.') continue;
    const std::string link = std::string("/proc/self/fd/") + entry->d_name;
    char target[4096];
    const ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
    if (n > 0) paths.emplace_back(target, static_cast<std::size_t>(n));
  }
  closedir(fds);
  return paths;
}

std::vector<std::vector<std::string>> PlainQuery(const std::string& path,
                                                 const std::string& sql) {
  sqlite3* raw = nullptr;
  if (sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr) !=
      SQLITE_OK) {
    sqlite3_close(raw);
    throw std::runtime_error("cannot open " + path);
  }
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> db(raw, sqlite3_close);
  std::vector<std::vector<std::string>> rows;
  char* error = nullptr;
  const int rc = sqlite3_exec(
      raw, sql.c_str(),
      [](void* out, int columns, char** values, char**) {
        auto* table = static_cast<std::vector<std::vector<std::string>>*>(out);
        std::vector<std::string> row;
        for (int i = 0; i < columns; ++i) {
          row.emplace_back(values[i] != nullptr ? values[i] : "<null>");
        }
        table->push_back(std::move(row));
        return 0;
      },
      &rows, &error);
  if (rc != SQLITE_OK) {
    const std::string message = error != nullptr ? error : "?";
    sqlite3_free(error);
    throw std::runtime_error("query failed: " + message + " in " + sql);
  }
  return rows;
}

boost::property_tree::ptree ExecThroughKxhost(const std::string& root,
                                              const std::string& request) {
  const kxtest::RunResult run = kxtest::RunKxhost(
      {"--root", root, "--plugin", KX_PLUGIN_PATH, "exec", "-"}, request);
  EXPECT_EQ(run.exit_code, 0) << run.err;
  if (run.exit_code != 0) return {};
  auto doc = kxhost::ParseXml(run.out);
  EXPECT_EQ(doc->Name(), "reply") << run.out;
  return doc->Tree();
}

}  // namespace journal_test
