#include "host/kernel_setters.h"

#include <string>

#include "host/sysctl.h"

// ------------------------------------------------------ IKernelStateSetter

IKernelStateSetter::IKernelStateSetter(const std::string& name) : name_(name) {}

IKernelStateSetter::~IKernelStateSetter() = default;

bool IKernelStateSetter::IsChanged() const { return changed_; }

bool IKernelStateSetter::Apply() {
  const bool applied = ChildApply();
  // A value the kernel did not take stays pending.
  if (applied) changed_ = false;
  return applied;
}

// ------------------------------------------------------- KernelStateSetter

KernelStateSetter::KernelStateSetter(const std::string& name)
    : IKernelStateSetter(name) {}

KernelStateSetter::~KernelStateSetter() = default;

void KernelStateSetter::SetState(int state) {
  if (!state_set_ || state_ != state) SetChanged(true);
  state_ = state;
  state_set_ = true;
}

// --------------------------------------------------- KernelModeStateSetter

KernelModeStateSetter::KernelModeStateSetter(const std::string& name)
    : KernelStateSetter(name) {}

KernelModeStateSetter::~KernelModeStateSetter() = default;

void KernelModeStateSetter::SetMode(int mode) {
  if (!mode_set_ || mode_ != mode) SetChanged(true);
  mode_ = mode;
  mode_set_ = true;
}

bool KernelModeStateSetter::ChildApply() {
  // Half a value would switch control on or off with a guessed other half.
  if (!IsStateSet() || !IsModeSet()) return false;
  // Each half is one bit; anything but 1 counts as 0, as the plug-in's
  // setters judge "on" and "hard" by == 1, so kernel and plug-in agree.
  const int encoded = (State() == 1 ? 1 : 0) | (Mode() == 1 ? 2 : 0);
  if (!sysctl::set(ParameterName(), std::to_string(encoded))) return false;
  // Only what the kernel really took counts as "hard mode already on"; a
  // failed write leaves the flag as it was.
  SetBaseFlag(State() == 1 && Mode() == 1);
  return true;
}
