#include "tables.h"

#include <sys/stat.h>

#include <algorithm>

namespace aec::engine {

namespace {

std::vector<std::uint32_t> Sorted(std::vector<std::uint32_t> ids) {
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  return ids;
}

} // namespace

bool StatResolver(const std::string &path, FileId *id) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0)
    return false;
  id->dev = st.st_dev;
  id->ino = st.st_ino;
  return true;
}

std::shared_ptr<const Tables> Tables::Build(const RuleSetInput &input,
                                            const Resolver &resolve,
                                            bool integrity) {
  std::shared_ptr<Tables> t(new Tables());
  t->version_ = input.version;
  t->integrity_ = integrity;
  t->rules_.reserve(input.rules.size());
  for (const RuleSetInput::Rule &in : input.rules) {
    CompiledRule rule;
    rule.name = in.name;
    rule.enabled = in.enabled;
    rule.all_users = in.all_users;
    rule.extended = in.extended;
    rule.uids = Sorted(in.uids);
    rule.gids = Sorted(in.gids);
    const auto rule_index = static_cast<std::uint32_t>(t->rules_.size());
    t->rules_.push_back(std::move(rule));
    for (const std::string &path : in.resources) {
      auto found = t->by_path_.find(path);
      std::uint32_t resource;
      if (found == t->by_path_.end()) {
        resource = static_cast<std::uint32_t>(t->resource_paths_.size());
        t->resource_paths_.push_back(path);
        t->resource_rules_.emplace_back();
        t->by_path_.emplace(path, resource);
      } else {
        resource = found->second;
      }
      std::vector<std::uint32_t> &holders = t->resource_rules_[resource];
      if (holders.empty() || holders.back() != rule_index) {
        holders.push_back(rule_index);
      }
    }
  }
  // Identities after the paths: two paths of one file (a hard link named
  // twice) share the rules of both.
  t->resource_extended_.assign(t->resource_paths_.size(), false);
  t->id_paths_.resize(t->resource_paths_.size());
  if (integrity) {
    t->digests_.resize(t->resource_paths_.size());
    t->has_digest_.assign(t->resource_paths_.size(), false);
  }
  for (std::uint32_t r = 0; r < t->resource_paths_.size(); ++r) {
    for (std::uint32_t index : t->resource_rules_[r]) {
      const CompiledRule &rule = t->rules_[index];
      if (rule.enabled && rule.extended)
        t->resource_extended_[r] = true;
    }
    FileId id;
    if (!resolve(t->resource_paths_[r], &id))
      continue;
    if (integrity) {
      t->has_digest_[r] = DigestOfFile(t->resource_paths_[r], &t->digests_[r]);
    }
    auto inserted = t->by_id_.emplace(id, r);
    t->id_paths_[inserted.first->second].push_back(t->resource_paths_[r]);
    if (!inserted.second) {
      // Merge into the first resource of this identity.
      const std::uint32_t first = inserted.first->second;
      for (std::uint32_t index : t->resource_rules_[r]) {
        std::vector<std::uint32_t> &holders = t->resource_rules_[first];
        if (std::find(holders.begin(), holders.end(), index) == holders.end()) {
          holders.push_back(index);
        }
      }
      if (t->resource_extended_[r])
        t->resource_extended_[first] = true;
    }
  }
  for (std::uint32_t uid : input.whitelist_uids)
    t->whitelist_uids_.insert(uid);
  for (std::uint32_t gid : input.whitelist_gids)
    t->whitelist_gids_.insert(gid);
  for (const std::string &path : input.exceptions) {
    t->exception_paths_.insert(path);
    FileId id;
    if (resolve(path, &id))
      t->exception_ids_.insert(id);
  }
  return t;
}

bool Tables::IsException(const FileId &id, const std::string &path) const {
  if (exception_ids_.count(id) != 0)
    return true;
  return !path.empty() && exception_paths_.count(path) != 0;
}

long Tables::FindResource(const FileId &id) const {
  auto found = by_id_.find(id);
  if (!changed_.load(std::memory_order_acquire)) {
    return found == by_id_.end() ? -1 : static_cast<long>(found->second);
  }
  std::lock_guard<std::mutex> lock(learnt_mu_);
  auto learnt = learnt_.find(id);
  if (learnt != learnt_.end())
    return learnt->second;
  if (found == by_id_.end() || dropped_.count(id) != 0)
    return -1;
  return found->second;
}

const std::vector<std::uint32_t> *Tables::RulesOf(const FileId &id) const {
  const long r = FindResource(id);
  return r < 0 ? nullptr : &resource_rules_[static_cast<std::size_t>(r)];
}

const Digest *Tables::RecordedDigest(const FileId &id) const {
  if (!integrity_)
    return nullptr;
  const long r = FindResource(id);
  if (r < 0 || !has_digest_[static_cast<std::size_t>(r)])
    return nullptr;
  return &digests_[static_cast<std::size_t>(r)];
}

bool Tables::IsExtendedResource(const FileId &id) const {
  const long r = FindResource(id);
  return r >= 0 && resource_extended_[static_cast<std::size_t>(r)];
}

bool Tables::Relearn(const FileId &id, const std::string &path,
                     const Resolver &resolve) const {
  auto found = by_path_.find(path);
  if (found == by_path_.end())
    return false;
  FileId now;
  if (!resolve(path, &now) || !(now == id))
    return false;
  std::lock_guard<std::mutex> lock(learnt_mu_);
  learnt_[id] = found->second;
  dropped_.erase(id);
  changed_.store(true, std::memory_order_release);
  return true;
}

void Tables::Verify(const FileId &id, const std::string &path,
                    const Resolver &resolve) const {
  const long r = FindResource(id);
  if (r < 0) {
    Relearn(id, path, resolve);
    return;
  }
  const std::vector<std::string> &paths =
      id_paths_[static_cast<std::size_t>(r)];
  for (const std::string &own : paths) {
    if (own == path)
      return;
  }
  // Known under other paths only (learnt identities have none recorded
  // here, and their path was checked when they were learnt).
  if (paths.empty())
    return;
  for (const std::string &own : paths) {
    FileId now;
    if (resolve(own, &now) && now == id)
      return;
  }
  std::lock_guard<std::mutex> lock(learnt_mu_);
  learnt_.erase(id);
  dropped_.insert(id);
  changed_.store(true, std::memory_order_release);
}

} // namespace aec::engine
