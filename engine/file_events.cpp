#include "file_events.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "elf_probe.h"

namespace aec::engine {

bool EventForFile(const std::string &path, std::uint32_t uid,
                  const std::vector<std::uint32_t> &gids, Event *event) {
  const int fd =
      open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0)
    return false;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    return false;
  }
  event->file = FileId{static_cast<std::uint64_t>(st.st_dev),
                       static_cast<std::uint64_t>(st.st_ino)};
  event->path = path;
  event->uid = uid;
  event->gids = gids;
  event->is_shared_object = IsElfSharedObject(fd);
  close(fd);
  event->access = !event->is_shared_object && (st.st_mode & 0111) != 0
                      ? Access::kExec
                      : Access::kOpen;
  return true;
}

} // namespace aec::engine
