#include "host/confirmation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <boost/system/error_code.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

#include "host/file_util.h"
#include "host/log.h"
#include "host_log.h"

namespace {

constexpr const char* kLogFile = "confirmation";

constexpr int kAwaitingAfterReboot = 0;
constexpr int kAwaiting = 1;
constexpr int kConfirmed = 2;
constexpr int kNotConfirmed = 3;

std::string DirName(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

bool MakeDirs(const std::string& dir) {
  boost::system::error_code ec;
  boost::filesystem::create_directories(dir, ec);
  return !ec && boost::filesystem::is_directory(dir, ec);
}

// Strict: a whole decimal number, nothing else on the line.
bool ParseInt(const std::string& text, int* out) {
  if (text.empty()) return false;
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(begin, &end, 10);
  if (end == begin || *end != '\0' || errno == ERANGE || value < -2147483647L ||
      value > 2147483647L) {
    return false;
  }
  *out = static_cast<int>(value);
  return true;
}

}  // namespace

// ----------------------------------------------------------- Confirmation

Confirmation::Confirmation() = default;

Confirmation::~Confirmation() = default;

void Confirmation::RequiereConfirmation() {
  LoadState();
  if (required_) return;
  required_ = true;
  Persist();
}

void Confirmation::NotRequiereConfirmation() {
  LoadState();
  const bool was_required = required_;
  required_ = false;
  // Nobody is left to confirm a pending round, so it ends as confirmed.
  if (state_ == kAwaitingAfterReboot || state_ == kAwaiting) {
    Enter(kConfirmed);
  } else if (was_required) {
    Persist();
  }
}

bool Confirmation::Confirm() {
  LoadState();
  switch (state_) {
    case kAwaitingAfterReboot:
    case kAwaiting:
      Enter(kConfirmed);
      return true;
    case kConfirmed:
      return true;
    default:
      // Refused (or a damaged record): only switching on anew starts over.
      return false;
  }
}

bool Confirmation::Check(bool switched_on_now) {
  LoadState();
  // Decided before anything is written: every write marks the boot.
  const bool fresh_boot = IsFreshBoot();
  bool keep = true;
  if (!required_) {
    keep = true;
  } else if (switched_on_now) {
    Enter(kAwaiting);  // a new round, also when one was pending
  } else {
    switch (state_) {
      case kConfirmed:
        break;
      case kAwaiting:
        if (fresh_boot) Enter(kAwaitingAfterReboot);
        break;
      case kAwaitingAfterReboot:
        if (fresh_boot) {
          // A whole boot went by without a confirmation.
          Enter(kNotConfirmed);
          keep = false;
        }
        break;
      default:
        keep = false;
    }
  }
  MarkBoot();
  return keep;
}

int Confirmation::State() const {
  // Another process (the rule-control tool's "confirm") may have changed
  // the record; reloading is the state's only mutation here.
  const_cast<Confirmation*>(this)->LoadState();
  return state_;
}

bool Confirmation::Required() const {
  const_cast<Confirmation*>(this)->LoadState();
  return required_;
}

void Confirmation::Enter(int state) {
  state_ = state;
  Persist();
  // The handlers only inform users; a failing one must not change what the
  // state machine decided.
  struct Step {
    bool (Confirmation::*handler)();
    const char* name;
  };
  Step steps[2] = {};
  int count = 0;
  switch (state) {
    case kAwaitingAfterReboot:
      steps[count++] = {&Confirmation::HandlerInit, "HandlerInit"};
      steps[count++] = {&Confirmation::HandlerWaitForConfirmation,
                        "HandlerWaitForConfirmation"};
      break;
    case kAwaiting:
      steps[count++] = {&Confirmation::HandlerWaitForConfirmation,
                        "HandlerWaitForConfirmation"};
      break;
    case kConfirmed:
      steps[count++] = {&Confirmation::HandlerConfirmed, "HandlerConfirmed"};
      break;
    case kNotConfirmed:
      steps[count++] = {&Confirmation::HandlerNotConfirmed,
                        "HandlerNotConfirmed"};
      break;
    default:
      break;
  }
  for (int i = 0; i < count; ++i) {
    if (!(this->*steps[i].handler)()) {
      KX_HOST_CODED_LOG(kLogFile, 4, kxhost::kHostLogId, kxhost::kHostLogName,
                        "[%d] %s: confirmation handler %s failed (state %d)",
                        steps[i].name, state);
    }
  }
}

bool Confirmation::Persist() {
  if (!CanModifyState()) {
    KX_HOST_CODED_LOG(kLogFile, 3, kxhost::kHostLogId, kxhost::kHostLogName,
                      "[%d] %s: cannot keep the confirmation state %d", state_);
    return false;
  }
  return WriteState();
}

// --------------------------------------------------- LockFileConfirmation

LockFileConfirmation::LockFileConfirmation(const std::string& state_file,
                                           const std::string& lock_file)
    : state_file_(state_file), lock_file_(lock_file) {}

LockFileConfirmation::~LockFileConfirmation() = default;

bool LockFileConfirmation::WriteState() {
  const std::string dir = DirName(state_file_);
  if (!MakeDirs(dir)) {
    KX_HOST_CODED_LOG(kLogFile, 3, kxhost::kHostLogId, kxhost::kHostLogName,
                      "[%d] %s: cannot make %s", dir.c_str());
    return false;
  }
  const std::string content = "state=" + std::to_string(state_) +
                              "\nrequired=" + (required_ ? "1" : "0") + "\n";
  try {
    // The temporary goes next to the file: a reader (the rule-control tool)
    // sees the old record or the new one, never half of one.
    kxfs::ReplaceFile(state_file_, content, dir, 0644);
  } catch (const std::system_error& e) {
    KX_HOST_CODED_LOG(kLogFile, 3, kxhost::kHostLogId, kxhost::kHostLogName,
                      "[%d] %s: cannot write %s: %s", state_file_.c_str(),
                      e.what());
    return false;
  }
  MarkBoot();
  return true;
}

bool LockFileConfirmation::CanModifyState() const {
  return MakeDirs(DirName(state_file_));
}

void LockFileConfirmation::LoadState() {
  // No record yet (a fresh installation) or one that cannot be read: hard
  // mode counts as confirmed, and confirmation as required.
  state_ = kConfirmed;
  required_ = true;
  std::ifstream in(state_file_);
  if (!in) return;
  std::string line;
  int state = 0;
  int required = 0;
  bool have_state = false;
  bool have_required = false;
  bool malformed = false;
  while (std::getline(in, line)) {
    if (line.empty()) continue;
    const auto equals = line.find('=');
    const std::string key = line.substr(0, equals);
    const std::string value =
        equals == std::string::npos ? std::string() : line.substr(equals + 1);
    // Other keys are left to whoever wrote them (a newer tool).
    if (key == "state") {
      have_state = ParseInt(value, &state);
      malformed = malformed || !have_state;
    } else if (key == "required") {
      have_required =
          ParseInt(value, &required) && (required == 0 || required == 1);
      malformed = malformed || !have_required;
    }
  }
  if (malformed || !have_state || !have_required) {
    KX_HOST_CODED_LOG(kLogFile, 4, kxhost::kHostLogId, kxhost::kHostLogName,
                      "[%d] %s: unreadable confirmation state in %s",
                      state_file_.c_str());
    return;
  }
  // Any number is kept as it stands (the plug-in reports unknown states);
  // the transitions treat one outside 0-3 like 3.
  state_ = state;
  required_ = required == 1;
}

bool LockFileConfirmation::IsFreshBoot() const {
  struct stat info;
  if (stat(lock_file_.c_str(), &info) == 0) return false;
  // Only a lock file that is certainly gone means a new boot; an error
  // reading its directory must not end a confirmation round.
  return errno == ENOENT || errno == ENOTDIR;
}

void LockFileConfirmation::MarkBoot() {
  const std::string dir = DirName(lock_file_);
  if (!MakeDirs(dir)) {
    KX_HOST_CODED_LOG(kLogFile, 3, kxhost::kHostLogId, kxhost::kHostLogName,
                      "[%d] %s: cannot make %s", dir.c_str());
    return;
  }
  const int fd = open(lock_file_.c_str(),
                      O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (fd < 0) {
    KX_HOST_CODED_LOG(kLogFile, 3, kxhost::kHostLogId, kxhost::kHostLogName,
                      "[%d] %s: cannot create %s: %s", lock_file_.c_str(),
                      std::strerror(errno));
    return;
  }
  close(fd);
}
