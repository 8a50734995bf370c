// Answers remembered by key for the life of the process, shared by threads.
#pragma once

#include <array>
#include <functional>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>

namespace aectool {

// Looked up under a shared lock and filled under an exclusive one, in one
// of 16 shards chosen by the key's hash: threads filling different keys
// (propose resolves thousands of files on every processor) rarely wait for
// each other. Entries are never removed and never move, so a reference to
// a value stays valid as long as the memo.
template <typename Value>
class Memo {
 public:
  // The value remembered for `key`, or null.
  const Value* Find(const std::string& key) const {
    const Shard& shard = ShardOf(key);
    std::shared_lock<std::shared_mutex> lock(shard.mutex);
    const auto found = shard.values.find(key);
    return found == shard.values.end() ? nullptr : &found->second;
  }

  // Remembers `value` for `key` unless a value is already there (another
  // thread was first); returns the one remembered.
  const Value& Remember(const std::string& key, Value value) {
    Shard& shard = ShardOf(key);
    std::unique_lock<std::shared_mutex> lock(shard.mutex);
    return shard.values.emplace(key, std::move(value)).first->second;
  }

 private:
  struct Shard {
    mutable std::shared_mutex mutex;
    std::unordered_map<std::string, Value> values;
  };

  Shard& ShardOf(const std::string& key) {
    return shards_[std::hash<std::string>()(key) % shards_.size()];
  }
  const Shard& ShardOf(const std::string& key) const {
    return shards_[std::hash<std::string>()(key) % shards_.size()];
  }

  std::array<Shard, 16> shards_;
};

}  // namespace aectool
