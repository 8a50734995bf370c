#include "host/kernel_setters.h"

#include <string>

#include "host/sysctl.h"

namespace {

// Stores one half of a setter's value with its set-flag; true when that
// changes what is pending (the value differs or was never set).
bool Store(int value, int* field, bool* set) {
  const bool changed = !*set || *field != value;
  *field = value;
  *set = true;
  return changed;
}

}  // namespace

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
  if (Store(state, &state_, &state_set_)) SetChanged(true);
}

// --------------------------------------------------- KernelModeStateSetter

KernelModeStateSetter::KernelModeStateSetter(const std::string& name)
    : KernelStateSetter(name) {}

KernelModeStateSetter::~KernelModeStateSetter() = default;

void KernelModeStateSetter::SetMode(int mode) {
  if (Store(mode, &mode_, &mode_set_)) SetChanged(true);
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
