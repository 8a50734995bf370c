#include "aec_policies/aechardmodeconfirmation.h"

#include <libintl.h>

#include <boost/filesystem/operations.hpp>
#include <boost/system/error_code.hpp>
#include <system_error>

#include "aec_paths.h"
#include "host/file_util.h"
#include "host/host_services.h"

namespace {

// Functions, not namespace-scope strings: the path constants they are built
// from live in the model library, whose static initialisation may not have
// run yet when this file's does.
std::string ConfirmStatePath() {
  return aec::kInstallRoot + "/var/aec_confirm";
}
std::string ConfirmLockPath() { return aec::kRemovalDir + "aec_confirm_lock"; }
std::string WarningPath() {
  return aec::kPamMessagesDir + "aec_confirm_warning";
}
// The warning is staged next to (not inside) the login-message directory:
// whatever shows that directory at login must never see a half-written or
// stray temporary file. Same file system, so the rename is atomic.
std::string WarningTempDir() { return aec::kInstallRoot + "/var/tmp/"; }

}  // namespace

std::unique_ptr<AecHardModeConfirmation>& AecHardModeConfirmation::Get() {
  static std::unique_ptr<AecHardModeConfirmation> instance(
      new AecHardModeConfirmation());
  return instance;
}

AecHardModeConfirmation::AecHardModeConfirmation()
    : LockFileConfirmation(ConfirmStatePath(), ConfirmLockPath()) {}

AecHardModeConfirmation::~AecHardModeConfirmation() = default;

std::string AecHardModeConfirmation::WarningFilePath() { return WarningPath(); }

void AecHardModeConfirmation::DeleteMessageFile() {
  // A warning that cannot be removed only shows an outdated notice; it must
  // not stop the state machine.
  boost::system::error_code ignored;
  boost::filesystem::remove(WarningPath(), ignored);
}

bool AecHardModeConfirmation::HandlerInit() {
  DeleteMessageFile();
  send_notify_systemwide(
      "ALERT", gettext("It is necessary to confirm AEC hard mode after reboot. "
                       "Otherwise, soft mode will be enabled."));
  return true;
}

bool AecHardModeConfirmation::HandlerWaitForConfirmation() {
  const std::string text =
      std::string(gettext("Contact your administrator to confirm AEC hard "
                          "mode (command `kxaecctl confirm`).")) +
      "\n";
  try {
    // Owner read/write only at first; readers are let in below by adding
    // bits, never by replacing the mode.
    kxfs::ReplaceFile(WarningPath(), text, WarningTempDir(), 0600);
  } catch (const std::system_error&) {
    return false;
  }
  boost::system::error_code ec;
  boost::filesystem::permissions(WarningPath(),
                                 boost::filesystem::add_perms |
                                     boost::filesystem::group_read |
                                     boost::filesystem::others_read,
                                 ec);
  return !ec;
}

bool AecHardModeConfirmation::HandlerConfirmed() {
  DeleteMessageFile();
  return true;
}

bool AecHardModeConfirmation::HandlerNotConfirmed() {
  DeleteMessageFile();
  return true;
}
