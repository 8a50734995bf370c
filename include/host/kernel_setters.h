// Kernel setters: objects that hold values destined for one kernel parameter
// and write them (through sysctl::set) when applied.
//
// Apply() calls ChildApply() and returns its result; a true result lowers the
// changed flag. Exceptions from ChildApply pass to the caller.
// Not thread-safe.
#pragma once

#include <string>

#include "host/host_api.h"

class KX_HOST_API IKernelStateSetter {
 public:
  explicit IKernelStateSetter(const std::string& name);
  virtual ~IKernelStateSetter();                 // 1-2
  virtual bool IsChanged() const;                // 3
  virtual bool ChildApply() = 0;                 // 4

  bool Apply();
  const std::string& ParameterName() const { return name_; }

 protected:
  void SetChanged(bool changed) { changed_ = changed; }
  // The base flag: true while the setter is not switching hard mode on anew
  // (at the first application after start, and while the last written value
  // was already hard mode); KernelModeStateSetter keeps it. Read by the
  // plug-in to decide how hard mode is confirmed (docs/hard-mode.md).
  bool BaseFlag() const { return base_flag_; }
  void SetBaseFlag(bool flag) { base_flag_ = flag; }

 private:
  std::string name_;
  bool changed_ = false;
  bool base_flag_ = true;
};

// Holds the control's state (0 off, 1 on).
class KX_HOST_API KernelStateSetter : public IKernelStateSetter {
 public:
  explicit KernelStateSetter(const std::string& name);
  ~KernelStateSetter() override;

  // Sets the value and its set-flag; raises the changed flag when the value
  // differs or was never set.
  void SetState(int state);
  int State() const { return state_; }
  bool IsStateSet() const { return state_set_; }

 private:
  int state_ = 0;
  bool state_set_ = false;
};

// Holds state and mode (0 soft, 1 hard) of one parameter. ChildApply writes
// both to the kernel as one decimal number, state | mode << 1 (0 off, 1 on in
// soft mode, 2 off with hard mode chosen, 3 on in hard mode; a state or mode
// other than 1 counts as 0), then keeps the base flag: true when what it
// wrote is hard mode switched on. It returns false without writing when the
// state or the mode was never set, or when the write failed (the base flag
// then stays as it was).
class KX_HOST_API KernelModeStateSetter : public KernelStateSetter {
 public:
  explicit KernelModeStateSetter(const std::string& name);
  ~KernelModeStateSetter() override;

  bool ChildApply() override;

  void SetMode(int mode);
  int Mode() const { return mode_; }
  bool IsModeSet() const { return mode_set_; }

 private:
  int mode_ = 0;
  bool mode_set_ = false;
};
