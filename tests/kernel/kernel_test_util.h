// Helpers shared by the kernel-backed policy tests.
#pragma once

#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "aec_policies/aechardmodeconfirmation.h"
#include "host/ixml.h"
#include "lib/runtime.h"
#include "lib/xml_document.h"
#include "support/kxtest.h"

namespace kerneltest {

// Where the sandboxed host keeps the two kernel parameters.
inline std::string SysctlPath(const std::string& name) {
  return "/opt/korvex/var/run/sysctl/" + name;
}
inline const std::string kEnvironmentFile =
    SysctlPath("korvex/secure/environment");
inline const std::string kVerboseFile =
    SysctlPath("korvex/secure/secenv_verbose");
inline const std::string kWarningFile =
    "/opt/korvex/var/tmp/pam_messages/aec_confirm_warning";
inline const std::string kLockFile = "/opt/korvex/var/tmp/rm/aec_confirm_lock";
inline const std::string kStateFile = "/opt/korvex/var/aec_confirm";

// The kernel parameter's text, or "<unwritten>" when it was never written.
inline std::string ReadParameter(const std::string& path) {
  return kxtest::Exists(path) ? kxtest::ReadFile(path) : "<unwritten>";
}

// What a reboot does to the confirmation: the removal directory is emptied.
inline void SimulateReboot() { ::unlink(kLockFile.c_str()); }

// Drives the real confirmation into state 3 (never confirmed across two
// boots), as the host's state machine gets there.
inline void DriveToNotConfirmed() {
  auto& confirmation = AecHardModeConfirmation::Get();
  confirmation->RequiereConfirmation();
  confirmation->Check(true);  // hard mode switched on: awaiting (1)
  SimulateReboot();
  confirmation->Check(false);  // first boot: awaiting after reboot (0)
  SimulateReboot();
  confirmation->Check(false);  // second boot without confirmation: 3
}

inline std::vector<kxhost::HostEvent> EventsOfKind(const std::string& kind) {
  std::vector<kxhost::HostEvent> found;
  for (const auto& event : kxhost::Events()) {
    if (event.kind == kind) found.push_back(event);
  }
  return found;
}

// A request record parsed from `xml_text` with an empty reply document.
inline std::unique_ptr<parsed_xml_data_t> MakeRequest(
    const std::string& xml_text) {
  auto request = std::make_unique<parsed_xml_data_t>();
  request->xml = kxhost::ParseXml(xml_text);
  request->reply = XMLParserBoost::CreateEmptyXML();
  return request;
}

// The text of child `name` of `doc`, or "<absent>".
inline std::string ParamOf(const boost::shared_ptr<IXml>& doc,
                           const std::string& name) {
  std::unique_ptr<char[]> text(doc->GetParam(name));
  return text ? std::string(text.get()) : "<absent>";
}

// A confirmation whose state is pinned to any value, also ones the host's
// state machine never produces.
class PinnedStateConfirmation : public AecHardModeConfirmation {
 public:
  explicit PinnedStateConfirmation(int state) : pinned_(state) {
    state_ = state;
  }
  void LoadState() override { state_ = pinned_; }

 private:
  int pinned_;
};

// Puts `replacement` in place of the process-wide confirmation while the
// guard lives.
class ConfirmationSwap {
 public:
  explicit ConfirmationSwap(AecHardModeConfirmation* replacement)
      : saved_(std::move(AecHardModeConfirmation::Get())) {
    AecHardModeConfirmation::Get().reset(replacement);
  }
  ~ConfirmationSwap() { AecHardModeConfirmation::Get() = std::move(saved_); }
  ConfirmationSwap(const ConfirmationSwap&) = delete;
  ConfirmationSwap& operator=(const ConfirmationSwap&) = delete;

 private:
  std::unique_ptr<AecHardModeConfirmation> saved_;
};

}  // namespace kerneltest
