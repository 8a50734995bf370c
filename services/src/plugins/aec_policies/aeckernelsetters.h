// The plug-in's kernel setters: the shared writer of control state and mode
// ("korvex/secure/environment"), which also guards hard mode, and the writer
// of the audit mask ("korvex/secure/secenv_verbose").
//
// Both are created once per policy set and shared by the policies that feed
// them (std::shared_ptr). Not thread-safe: the host applies policies from one
// thread.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "host/kernel_setters.h"

namespace aec {

extern const std::string kModeStateParameter;  // "korvex/secure/environment"
extern const std::string kLogModeParameter;    // "korvex/secure/secenv_verbose"

}  // namespace aec

// Thrown by AecKernelModeStateSetter::ChildApply when hard mode is requested
// but the hard-mode confirmation refuses it. The applying policy catches it
// and falls back to "0".
class NoConfirmedHardMode : public std::runtime_error {
 public:
  NoConfirmedHardMode();  // what(): "AEC Hard Mode is not confirmed"
  ~NoConfirmedHardMode() override;
};

// Writes state and mode (the host base encodes them as state | mode << 1).
//
// ChildApply, on top of the base:
//  - returns false without writing while the state or the mode was never set;
//  - hard mode not requested: resets and confirms the confirmation record, so
//    that a later switch to hard mode starts a fresh round;
//  - hard mode requested: asks the confirmation; a refusal throws
//    NoConfirmedHardMode and nothing is written;
//  - control on (either mode): runs "kxaecctl restart"; a failure is logged
//    and blocks the station, and the kernel is written all the same.
class AecKernelModeStateSetter : public KernelModeStateSetter {
 public:
  explicit AecKernelModeStateSetter(const std::string& name);
  ~AecKernelModeStateSetter() override;

  bool ChildApply() override;
};

// Holds the audit switches as one 8-bit mask, bit `LogType` per event, and
// writes the whole mask as decimal text on every application.
class AecLogModeSetter : public IKernelStateSetter {
 public:
  // The bit of each audit event in the mask (the `type` column of
  // kAecLogTypes).
  enum LogType : std::int32_t {
    kLogPermExec = 0,
    kLogDenyExec = 1,
    kLogPermOpenLib = 2,
    kLogDenyOpenLib = 3,
    kLogPermOpenFile = 4,
    kLogDenyOpenFile = 5,
  };

  explicit AecLogModeSetter(const std::string& name);
  ~AecLogModeSetter() override;

  // Writes the mask with sysctl::set; always true (a failed write is logged
  // by the host).
  bool ChildApply() override;

  // `type` must be 0 to 7.
  bool GetLogMode(LogType type) const;
  // Any non-zero `value` sets the bit. Marks the setter changed only when the
  // bit actually changes.
  void SetLogMode(LogType type, int value);

  std::uint8_t Mask() const { return mask_; }

 private:
  std::uint8_t mask_ = 0;
};
