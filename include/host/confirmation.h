// The host's confirmation state machine (used for hard mode).
//
// States (State()):
//   0 awaiting confirmation after a reboot
//   1 awaiting confirmation
//   2 confirmed (also the state of a fresh installation)
//   3 not confirmed: refused until the feature is switched on anew
// and, beside the state, whether confirmation is required at all.
//
// Transitions (docs/confirmation.md draws them):
//   RequiereConfirmation()   required := true; the state is not changed.
//   NotRequiereConfirmation() required := false; 0 or 1 become 2.
//   Confirm()                0/1 -> 2 (true); 2 stays (true); 3 stays (false).
//   Check(switched_on_now)   not required: true.
//     switched_on_now:       any -> 1 (a new round), true.
//     otherwise:             2 true; 3 false;
//                            1 on a fresh boot -> 0, true; 1 otherwise true;
//                            0 on a fresh boot -> 3, false; 0 otherwise true.
// A state outside 0-3 (a damaged or foreign record) is kept and reported,
// and treated like 3.
// A fresh boot is a Check that finds no lock file (LockFileConfirmation);
// every Check and every write leaves the lock file in place.
// Handlers are called on entering a state, after it was written: 0
// HandlerInit then
// HandlerWaitForConfirmation, 1 HandlerWaitForConfirmation, 2
// HandlerConfirmed, 3 HandlerNotConfirmed. Their results are logged, not
// acted upon.
//
// Every public operation first reloads the persisted state, so that another
// process (the rule-control tool's "confirm") is seen at once. Failures to
// persist are logged; the operations never throw for them.
// Not thread-safe. The order of the virtual operations is part of the binary
// contract.
#pragma once

#include <string>

#include "host/host_api.h"

class KX_HOST_API Confirmation {
 public:
  Confirmation();
  virtual ~Confirmation();                               // 1-2
  virtual bool HandlerInit() = 0;                        // 3
  virtual bool HandlerWaitForConfirmation() = 0;         // 4
  virtual bool HandlerConfirmed() = 0;                   // 5
  virtual bool HandlerNotConfirmed() = 0;                // 6
  virtual bool WriteState() = 0;                         // 7
  virtual bool CanModifyState() const = 0;               // 8
  // Host operations after the known slots.
  virtual void LoadState() = 0;                          // 9
  virtual bool IsFreshBoot() const = 0;                  // 10
  virtual void MarkBoot() = 0;                           // 11

  void RequiereConfirmation();
  void NotRequiereConfirmation();
  bool Check(bool switched_on_now);
  bool Confirm();
  int State() const;
  bool Required() const;

 protected:
  int state_ = 2;
  bool required_ = true;

 private:
  void Enter(int state);
  bool Persist();
};

// Keeps the state in a small text file ("state=N\nrequired=0|1\n", replaced
// atomically) and tells a fresh boot by the absence of a lock file that lives
// in a directory emptied at boot.
class KX_HOST_API LockFileConfirmation : public Confirmation {
 public:
  LockFileConfirmation(const std::string& state_file,
                       const std::string& lock_file);
  ~LockFileConfirmation() override;

  bool WriteState() override;
  // True when the state file's directory exists or can be made.
  bool CanModifyState() const override;
  void LoadState() override;
  bool IsFreshBoot() const override;
  void MarkBoot() override;

  const std::string& StateFile() const { return state_file_; }
  const std::string& LockFile() const { return lock_file_; }

 private:
  std::string state_file_;
  std::string lock_file_;
};
