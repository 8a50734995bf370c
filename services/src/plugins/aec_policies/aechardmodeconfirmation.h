// The plug-in's hard-mode confirmation: the host's confirmation state machine
// (host/confirmation.h) with the plug-in's files and user notices.
//
// Files, all under the install root:
//   state file    /opt/korvex/var/aec_confirm
//   lock file     /opt/korvex/var/tmp/rm/aec_confirm_lock  (gone after a boot)
//   warning file  /opt/korvex/var/tmp/pam_messages/aec_confirm_warning
// The warning file's presence makes the login show its text; it exists only
// while a confirmation is awaited.
//
// One object per process, created on first use by Get() and destroyed at
// unload. Not thread-safe: used from the host's calling thread only.
#pragma once

#include <memory>
#include <string>

#include "host/confirmation.h"

class AecHardModeConfirmation : public LockFileConfirmation {
 public:
  // The process-wide object; never null unless a caller replaced it.
  static std::unique_ptr<AecHardModeConfirmation>& Get();

  ~AecHardModeConfirmation() override;

  // Deletes the warning file, then tells every logged-in user that hard mode
  // must be confirmed after the reboot. Always true.
  bool HandlerInit() override;
  // Writes the warning file (one line) readable by group and others. False
  // when it could not be written or its permissions not set; nothing is
  // logged here.
  bool HandlerWaitForConfirmation() override;
  // Both delete the warning file. Always true.
  bool HandlerConfirmed() override;
  bool HandlerNotConfirmed() override;

  // Removes the warning file; a missing file or a failed removal is ignored.
  static void DeleteMessageFile();

  static std::string WarningFilePath();

 protected:
  // Protected so that only Get() (and test doubles deriving from this class)
  // create one.
  AecHardModeConfirmation();
};
