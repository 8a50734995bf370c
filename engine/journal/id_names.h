// The names of user and group ids, as the journal stores them.
//
// Looked up through the system's name services (getpwuid_r, getgrgid_r)
// and kept, so each id is looked up once. An id without a name is stored as
// its number. Not thread-safe: one per thread. Lookups open files (passwd,
// group, the service modules): the engine calls them on the journal
// writer's thread, never on the thread that answers permission events,
// which must not wait for an open of its own.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

namespace aec::engine {

class IdNames {
 public:
  const std::string& User(std::uint32_t uid);
  const std::string& Group(std::uint32_t gid);

 private:
  using Names = std::unordered_map<std::uint32_t, std::string>;
  // The kept name of `id`, looked up with `look_up` the first time.
  static const std::string& Kept(Names* kept, std::uint32_t id,
                                 std::string (*look_up)(std::uint32_t));

  // Bounded: a machine with churning ids cannot grow it without end.
  static constexpr std::size_t kMaxKept = 10000;
  Names users_, groups_;
};

}  // namespace aec::engine
