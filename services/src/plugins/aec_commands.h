// The handlers behind the command table. Each takes the host's request record
// and returns nothing: outcomes go into request->reply. A handler reports its
// expected failures as reply documents; a standard exception that leaves it
// makes the dispatcher release the request without a reply.
#pragma once

#include "host/ixml.h"

namespace aec {

void ResetPolicies(parsed_xml_data_t* request);             // reset_policies, reset_policy
void HandleGet(parsed_xml_data_t* request);                 // get
void HandleAdd(parsed_xml_data_t* request);                 // add
void HandleEdit(parsed_xml_data_t* request);                // edit
void HandleRemove(parsed_xml_data_t* request);              // remove
void HandleExport(parsed_xml_data_t* request);              // export
void HandleReload(parsed_xml_data_t* request);              // reload
void HandleLog(parsed_xml_data_t* request);                 // log
void HandleLogList(parsed_xml_data_t* request);             // loglist
void HandleConfirmHardMode(parsed_xml_data_t* request);     // confirm_hard_mode
void HandleStatusConfirmation(parsed_xml_data_t* request);  // status_confirmation

}  // namespace aec
