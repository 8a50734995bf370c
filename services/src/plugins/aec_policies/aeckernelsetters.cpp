#include "aec_policies/aeckernelsetters.h"

#include <libintl.h>

#include "aec_log.h"
#include "aec_policies/aechardmodeconfirmation.h"
#include "host/errors.h"
#include "host/host_services.h"
#include "host/sysctl.h"
#include "kxaecctl.h"

namespace {

constexpr const char* kLogFile = "aeckernelsetters";

}  // namespace

namespace aec {

const std::string kModeStateParameter = "korvex/secure/environment";
const std::string kLogModeParameter = "korvex/secure/secenv_verbose";

}  // namespace aec

NoConfirmedHardMode::NoConfirmedHardMode()
    : std::runtime_error("AEC Hard Mode is not confirmed") {}

NoConfirmedHardMode::~NoConfirmedHardMode() = default;

AecKernelModeStateSetter::AecKernelModeStateSetter(const std::string& name)
    : KernelModeStateSetter(name) {}

AecKernelModeStateSetter::~AecKernelModeStateSetter() = default;

bool AecKernelModeStateSetter::ChildApply() {
  // Both policies feed this setter; the first one applied at start must not
  // write a half-known value.
  if (!IsModeSet() || !IsStateSet()) return false;

  auto& confirmation = AecHardModeConfirmation::Get();
  if (!(Mode() == 1 && State() == 1)) {
    // Leaving hard mode (or never in it) closes any pending round, so the
    // next switch to hard mode is judged afresh.
    confirmation->RequiereConfirmation();
    confirmation->Confirm();
  } else if (!confirmation->Check(!BaseFlag())) {
    // The base flag is down exactly when hard mode is being switched on anew
    // rather than kept across a start.
    throw NoConfirmedHardMode();
  }

  if (State() == 1) {
    // The kernel drops its rule tables when control goes off; turning it on
    // must load them again, and running without them is worse than a blocked
    // station.
    bool failed = false;
    KxAecCtl restart("restart", false);
    try {
      restart.Apply();
      failed = restart.GetError() != 0;
    } catch (const PluginException&) {
      failed = true;
    }
    if (failed) {
      AEC_LOG(kLogFile, 3, "[%d] %s: failed to apply AEC rules");
      block_station(gettext("Failed to apply AEC rules"), true);
    }
  }

  return KernelModeStateSetter::ChildApply();
}

AecLogModeSetter::AecLogModeSetter(const std::string& name)
    : IKernelStateSetter(name) {}

AecLogModeSetter::~AecLogModeSetter() = default;

bool AecLogModeSetter::ChildApply() {
  sysctl::set(ParameterName(), std::to_string(static_cast<unsigned>(mask_)));
  return true;
}

bool AecLogModeSetter::GetLogMode(LogType type) const {
  return (mask_ >> type) & 1u;
}

void AecLogModeSetter::SetLogMode(LogType type, int value) {
  const bool on = value != 0;
  if (GetLogMode(type) == on) return;
  const auto bit = static_cast<std::uint8_t>(1u << type);
  mask_ = on ? static_cast<std::uint8_t>(mask_ | bit)
             : static_cast<std::uint8_t>(mask_ & ~bit);
  SetChanged(true);
}
