// The two commands of the hard-mode confirmation: "confirm_hard_mode" and
// "status_confirmation".
#include <libintl.h>

#include <string>

#include "aec_commands.h"
#include "aec_paths.h"
#include "aec_policies/aechardmodeconfirmation.h"

namespace {

// What administrators are told about each confirmation state; a state the
// plug-in does not know is reported by number alone.
std::string StateDescription(int state) {
  switch (state) {
    case 0:
      return gettext("AEC hard mode is awaiting confirmation after reboot");
    case 1:
      return gettext("AEC hard mode is awaiting confirmation");
    case 2:
      return gettext("AEC hard mode is confirmed");
    case 3:
      return gettext(
          "AEC hard mode was not confirmed. You need to re-enable and confirm "
          "it");
    default:
      return std::string();
  }
}

}  // namespace

namespace aec {

void HandleConfirmHardMode(parsed_xml_data_t* request) {
  const bool ok = AecHardModeConfirmation::Get()->Confirm();
  auto doc = XMLParserBoost::CreateEmptyXML();
  doc->AddValue("result", ok ? kResultOk : kResultFailed, false);
  request->reply->AddNode("confirm_hard_mode", doc, false);
}

void HandleStatusConfirmation(parsed_xml_data_t* request) {
  const int state = AecHardModeConfirmation::Get()->State();
  auto doc = XMLParserBoost::CreateEmptyXML();
  doc->AddValue("state", std::to_string(state), false);
  doc->AddValue("description", StateDescription(state), false);
  request->reply->AddNode("status_confirmation", doc, false);
}

}  // namespace aec
