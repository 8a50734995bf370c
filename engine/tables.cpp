#include "tables.h"

#include <sys/stat.h>

#include <algorithm>
#include <map>

#include "for_each_in_parallel.h"

namespace aec::engine {

namespace {

constexpr std::uint32_t kNone = 0xFFFFFFFFu;

// Resources a thread must have at the least to be started: for fewer,
// starting it costs more than the stat calls it takes over.
constexpr std::size_t kWorthAThread = 4096;

// An open-addressed table for `n` entries: a power of two at least twice
// as large, so that probes stay short.
std::size_t SlotCount(std::size_t n) {
  std::size_t slots = 16;
  while (slots < 2 * n)
    slots *= 2;
  return slots;
}

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
  std::size_t named = 0, text = 0;
  for (const RuleSetInput::Rule &in : input.rules) {
    named += in.resources.size();
    for (const std::string &path : in.resources)
      text += path.size();
  }
  t->path_text_.reserve(text);
  t->path_offsets_.reserve(named + 1);
  t->path_slots_.assign(SlotCount(named), 0);

  // The rules of each resource: nearly always one, so the first is kept
  // apart and only a second one makes a list.
  std::vector<std::uint32_t> first_rule;
  first_rule.reserve(named);
  std::unordered_map<std::uint32_t, std::vector<std::uint32_t>> more_rules;
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
      const std::uint64_t hash = std::hash<std::string_view>()(path);
      const std::size_t slot = t->PathSlot(path, hash);
      const long found = t->ResourceInPathSlot(slot);
      if (found < 0) {
        const auto r = static_cast<std::uint32_t>(first_rule.size());
        t->path_text_ += path;
        t->path_offsets_.push_back(t->path_text_.size());
        t->path_slots_[slot] = (hash >> 32 << 32) | (r + 1ULL);
        first_rule.push_back(rule_index);
        continue;
      }
      const auto r = static_cast<std::uint32_t>(found);
      if (first_rule[r] == rule_index)
        continue;
      std::vector<std::uint32_t> &more = more_rules[r];
      if (more.empty() || more.back() != rule_index)
        more.push_back(rule_index);
    }
  }
  const std::size_t n = first_rule.size();

  // Resource lists shared: a rule's resources all point at one list.
  std::vector<std::uint32_t> single(t->rules_.size(), kNone);
  std::map<std::vector<std::uint32_t>, std::uint32_t> multiple;
  auto intern = [&](std::vector<std::uint32_t> holders) {
    if (holders.size() == 1) {
      std::uint32_t &index = single[holders[0]];
      if (index == kNone) {
        index = static_cast<std::uint32_t>(t->holder_sets_.size());
        t->holder_sets_.push_back(std::move(holders));
      }
      return index;
    }
    std::sort(holders.begin(), holders.end());
    holders.erase(std::unique(holders.begin(), holders.end()), holders.end());
    auto inserted = multiple.emplace(
        holders, static_cast<std::uint32_t>(t->holder_sets_.size()));
    if (inserted.second)
      t->holder_sets_.push_back(std::move(holders));
    return inserted.first->second;
  };
  t->holder_set_.resize(n);
  t->resource_extended_.assign(n, false);
  for (std::uint32_t r = 0; r < n; ++r) {
    std::vector<std::uint32_t> holders{first_rule[r]};
    auto more = more_rules.find(r);
    if (more != more_rules.end()) {
      holders.insert(holders.end(), more->second.begin(), more->second.end());
    }
    for (std::uint32_t index : holders) {
      const CompiledRule &rule = t->rules_[index];
      if (rule.enabled && rule.extended)
        t->resource_extended_[r] = true;
    }
    t->holder_set_[r] = intern(std::move(holders));
  }
  std::vector<std::uint32_t>().swap(first_rule);
  more_rules.clear();

  // Resolving is a stat (and with integrity a read) per resource, the bulk
  // of the work for a large set; the resources are independent.
  t->resource_ids_.resize(n);
  std::vector<std::uint8_t> ok(n, 0);
  if (integrity) {
    t->digests_.resize(n);
    t->has_digest_.assign(n, false);
  }
  std::vector<std::uint8_t> digested(integrity ? n : 0, 0);
  const auto resolve_range = [&](std::size_t begin, std::size_t end) {
    std::string path;
    for (std::size_t r = begin; r < end; ++r) {
      path.assign(t->PathOf(static_cast<std::uint32_t>(r)));
      if (!resolve(path, &t->resource_ids_[r]))
        continue;
      ok[r] = 1;
      if (integrity)
        digested[r] = DigestOfFile(path, &t->digests_[r]) ? 1 : 0;
    }
  };
  aec::ForEachRangeInParallel(n, n / kWorthAThread, resolve_range);
  // Identities after the paths, in resource order: two paths of one file
  // (a hard link named twice) share the rules of both, under the first.
  t->resolved_.assign(n, Resolved::kNo);
  t->id_slots_.assign(SlotCount(n), 0);
  for (std::uint32_t r = 0; r < n; ++r) {
    if (integrity)
      t->has_digest_[r] = digested[r] != 0;
    if (!ok[r])
      continue;
    const std::size_t slot = t->IdSlot(t->resource_ids_[r]);
    if (t->id_slots_[slot] == 0) {
      t->id_slots_[slot] = r + 1;
      t->resolved_[r] = Resolved::kFirst;
      continue;
    }
    const std::uint32_t first = t->id_slots_[slot] - 1;
    t->resolved_[r] = Resolved::kFurther;
    t->further_[first].push_back(r);
    std::vector<std::uint32_t> merged = t->holder_sets_[t->holder_set_[first]];
    const std::vector<std::uint32_t> &own = t->holder_sets_[t->holder_set_[r]];
    merged.insert(merged.end(), own.begin(), own.end());
    t->holder_set_[first] = intern(std::move(merged));
    if (t->resource_extended_[r])
      t->resource_extended_[first] = true;
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

std::size_t Tables::IdSlot(const FileId &id) const {
  const std::size_t mask = id_slots_.size() - 1;
  std::size_t slot = FileIdHash()(id) & mask;
  while (id_slots_[slot] != 0 && !(resource_ids_[id_slots_[slot] - 1] == id))
    slot = (slot + 1) & mask;
  return slot;
}

std::size_t Tables::PathSlot(std::string_view path,
                             std::uint64_t hash) const {
  const std::size_t mask = path_slots_.size() - 1;
  std::size_t slot = hash & mask;
  for (; path_slots_[slot] != 0; slot = (slot + 1) & mask) {
    const std::uint64_t entry = path_slots_[slot];
    if ((entry >> 32) == (hash >> 32) &&
        PathOf(static_cast<std::uint32_t>(entry) - 1) == path) {
      break;
    }
  }
  return slot;
}

long Tables::ResourceInPathSlot(std::size_t slot) const {
  const std::uint64_t entry = path_slots_[slot];
  return entry == 0 ? -1
                    : static_cast<long>(static_cast<std::uint32_t>(entry) - 1);
}

long Tables::FindBuiltId(const FileId &id) const {
  const std::uint32_t entry = id_slots_[IdSlot(id)];
  return entry == 0 ? -1 : static_cast<long>(entry - 1);
}

long Tables::FindPath(std::string_view path) const {
  return ResourceInPathSlot(
      PathSlot(path, std::hash<std::string_view>()(path)));
}

long Tables::FindResource(const FileId &id) const {
  const long found = FindBuiltId(id);
  if (!changed_.load(std::memory_order_acquire))
    return found;
  std::lock_guard<std::mutex> lock(learnt_mu_);
  auto learnt = learnt_.find(id);
  if (learnt != learnt_.end())
    return learnt->second;
  if (found < 0 || dropped_.count(id) != 0)
    return -1;
  return found;
}

const std::vector<std::uint32_t> *Tables::RulesOf(const FileId &id) const {
  const long r = FindResource(id);
  return r < 0 ? nullptr
               : &holder_sets_[holder_set_[static_cast<std::size_t>(r)]];
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
  const long found = FindPath(path);
  if (found < 0)
    return false;
  FileId now;
  if (!resolve(path, &now) || !(now == id))
    return false;
  std::lock_guard<std::mutex> lock(learnt_mu_);
  learnt_[id] = static_cast<std::uint32_t>(found);
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
  // Learnt identities have no paths recorded here (their path was checked
  // when they were learnt), nor have resources that named no file.
  bool known = false;
  if (IsBuiltPathOf(static_cast<std::uint32_t>(r), path, &known) || !known)
    return;
  const auto still_there = [&](std::uint32_t resource) {
    FileId now;
    return resolve(std::string(PathOf(resource)), &now) && now == id;
  };
  const auto first = static_cast<std::uint32_t>(r);
  if (still_there(first))
    return;
  auto further = further_.find(first);
  if (further != further_.end()) {
    for (std::uint32_t other : further->second) {
      if (still_there(other))
        return;
    }
  }
  std::lock_guard<std::mutex> lock(learnt_mu_);
  learnt_.erase(id);
  dropped_.insert(id);
  changed_.store(true, std::memory_order_release);
}

bool Tables::IsBuiltPathOf(std::uint32_t resource, std::string_view path,
                           bool *known) const {
  *known = resolved_[resource] == Resolved::kFirst;
  if (!*known)
    return false;
  if (PathOf(resource) == path)
    return true;
  auto further = further_.find(resource);
  if (further == further_.end())
    return false;
  for (std::uint32_t other : further->second) {
    if (PathOf(other) == path)
      return true;
  }
  return false;
}

} // namespace aec::engine
