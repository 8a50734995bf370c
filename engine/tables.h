// The engine's tables: the loaded set compiled into lookups by file identity
// (device, inode), user id and group id, so that a decision reads memory
// only. A Tables object is immutable once published; a new set is built
// aside and swapped in whole (TablesHolder), so every decision sees one set.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "content_digest.h"

namespace aec::engine {

// The identity of a file: what the kernel hands over, not a path that a
// rename or a hard link could change.
struct FileId {
  std::uint64_t dev = 0;
  std::uint64_t ino = 0;
  bool operator==(const FileId &other) const {
    return dev == other.dev && ino == other.ino;
  }
};

struct FileIdHash {
  std::size_t operator()(const FileId &id) const noexcept {
    return std::hash<std::uint64_t>()(id.ino * 0x9E3779B97F4A7C15ULL ^ id.dev);
  }
};

struct CompiledRule {
  std::string name;
  bool enabled = false;
  bool all_users = false;
  bool extended = false;
  std::vector<std::uint32_t> uids; // sorted
  std::vector<std::uint32_t> gids; // sorted
};

// What a rule set says before its files are resolved; tests fill it in,
// the daemon makes it from the loaded set.
struct RuleSetInput {
  struct Rule {
    std::string name;
    bool enabled = false;
    bool all_users = false;
    bool extended = false;
    std::vector<std::uint32_t> uids;
    std::vector<std::uint32_t> gids;
    std::vector<std::string> resources; // absolute paths
  };
  std::vector<Rule> rules;
  std::vector<std::uint32_t> whitelist_uids;
  std::vector<std::uint32_t> whitelist_gids;
  std::vector<std::string> exceptions; // absolute paths
  std::string version;                 // shown in the status
};

// Resolves a path to its identity (stat, links followed); false when the
// path does not name a file now. Replaceable so that tests can give
// identities without files.
using Resolver = std::function<bool(const std::string &path, FileId *id)>;
bool StatResolver(const std::string &path, FileId *id);

class Tables {
public:
  // Compiles `input`; resources that do not resolve are kept by path only
  // and resolved on the first event that names their path. With
  // `integrity`, the SHA-256 of each resource that resolves is recorded
  // (a resource that cannot be read then has none, and its rules do not
  // allow it). A large set is resolved on several threads at once, so
  // `resolve` must be safe to call concurrently (StatResolver is).
  static std::shared_ptr<const Tables> Build(const RuleSetInput &input,
                                             const Resolver &resolve,
                                             bool integrity = false);

  const std::vector<CompiledRule> &rules() const { return rules_; }
  std::size_t resource_count() const { return path_offsets_.size() - 1; }
  const std::string &version() const { return version_; }

  bool IsWhitelistedUid(std::uint32_t uid) const {
    return whitelist_uids_.count(uid) != 0;
  }
  bool IsWhitelistedGid(std::uint32_t gid) const {
    return whitelist_gids_.count(gid) != 0;
  }
  bool IsException(const FileId &id, const std::string &path) const;

  // The rules (indices into rules()) holding the file as a resource; null
  // when none. Looks at the identities resolved at build and at those
  // learnt later through Relearn(). Valid as long as the Tables.
  const std::vector<std::uint32_t> *RulesOf(const FileId &id) const;

  // A file that is a resource of an enabled extended rule: its opens are
  // controlled.
  bool IsExtendedResource(const FileId &id) const;

  bool integrity() const { return integrity_; }
  // The content recorded for the resource of this identity; null when
  // integrity is off, the file is no resource, or it could not be read.
  const Digest *RecordedDigest(const FileId &id) const;

  // Makes the identities agree with the file system for this event before
  // it is decided; the only mutation of a published Tables, thread safe.
  // - A resource replaced (a new inode at its path, as a package update or
  //   a rewrite by rename leaves it): the event's identity is unknown, but
  //   its path is a resource path that now resolves to it; it is learnt.
  // - An identity known under another path than the event's: a hard link,
  //   or an inode number that the file system reused after the resource was
  //   deleted. The resource's own path must still resolve to it; otherwise
  //   the identity is dropped, so a reused inode never inherits a rule.
  // Costs a stat only in those two cases.
  void Verify(const FileId &id, const std::string &path,
              const Resolver &resolve) const;

  // Verify's first case alone; true when the identity was learnt.
  bool Relearn(const FileId &id, const std::string &path,
               const Resolver &resolve) const;

private:
  // How a resource's path stood when the set was built.
  enum class Resolved : std::uint8_t {
    kNo,      // named no file
    kFirst,   // the first path of its identity: the identity leads here
    kFurther, // another path of an identity met before (a hard link)
  };

  Tables() = default;
  long FindResource(const FileId &id) const; // resource index or -1
  long FindBuiltId(const FileId &id) const;
  long FindPath(std::string_view path) const;
  // The slot of an open-addressed table that holds the key, or the empty
  // one where it would go: one probe for lookups and for the build.
  std::size_t IdSlot(const FileId &id) const;
  std::size_t PathSlot(std::string_view path, std::uint64_t hash) const;
  long ResourceInPathSlot(std::size_t slot) const; // -1 when empty
  std::string_view PathOf(std::uint32_t resource) const {
    return std::string_view(path_text_).substr(
        path_offsets_[resource],
        path_offsets_[resource + 1] - path_offsets_[resource]);
  }
  // True when `path` is one of the paths the identity of `resource` was
  // built from; *known is false when it was built from none.
  bool IsBuiltPathOf(std::uint32_t resource, std::string_view path,
                     bool *known) const;

  // A million resources must cost tens of bytes each, not hundreds, and
  // freeing them must not take a decision's time: the paths are one text,
  // the lookups open-addressed arrays of resource numbers, and the rule
  // lists shared by every resource that has the same one.
  std::vector<CompiledRule> rules_;
  std::string path_text_;                   // the paths back to back
  std::vector<std::size_t> path_offsets_{0}; // resource r: [r], [r + 1])
  std::vector<std::uint64_t> path_slots_; // hash << 32 | r + 1; 0: empty
  std::vector<std::uint32_t> holder_set_;  // resource -> holder_sets_ index
  std::vector<std::vector<std::uint32_t>> holder_sets_; // distinct lists
  std::vector<bool> resource_extended_; // held by an enabled extended rule
  std::vector<FileId> resource_ids_;    // per resource, when resolved
  std::vector<Resolved> resolved_;
  std::vector<std::uint32_t> id_slots_; // r + 1 of a kFirst resource; 0: empty
  // kFirst resource -> the kFurther resources of the same identity.
  std::unordered_map<std::uint32_t, std::vector<std::uint32_t>> further_;
  std::unordered_set<std::uint32_t> whitelist_uids_;
  std::unordered_set<std::uint32_t> whitelist_gids_;
  std::unordered_set<FileId, FileIdHash> exception_ids_;
  std::unordered_set<std::string> exception_paths_;
  std::string version_;
  bool integrity_ = false;
  std::vector<Digest> digests_; // per resource, with integrity
  std::vector<bool> has_digest_;

  // Identities learnt or dropped after the build. `changed_` keeps the
  // common lookup free of the lock while nothing was learnt or dropped.
  mutable std::mutex learnt_mu_;
  mutable std::atomic<bool> changed_{false};
  mutable std::unordered_map<FileId, std::uint32_t, FileIdHash> learnt_;
  mutable std::unordered_set<FileId, FileIdHash> dropped_;
};

// The snapshot in force. Readers take a reference for the length of one
// decision; a writer publishes a new one in one atomic step.
class TablesHolder {
public:
  std::shared_ptr<const Tables> Get() const {
    return std::atomic_load(&tables_);
  }
  void Set(std::shared_ptr<const Tables> tables) {
    std::atomic_store(&tables_, std::move(tables));
  }

private:
  std::shared_ptr<const Tables> tables_;
};

} // namespace aec::engine
