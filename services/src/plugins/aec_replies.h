// The shared shapes of a reply: "result" "1" on success, "0" with
// "error_desc" on failure. All fields are added with AddValue(…, false).
#pragma once

#include <boost/shared_ptr.hpp>
#include <string>

#include "host/ixml.h"

class KxAecCtl;

namespace aec {

// A new document holding "result" = "0" and then "error_desc" = text.
boost::shared_ptr<IXml> MakeErrorReply(const std::string& text);

// Runs tool.Apply(). A PluginException becomes MakeErrorReply(what()); exit
// status 0 a document with only "result" = "1"; any other status
// MakeErrorReply(GetErrorDescription()). Other exceptions pass through.
boost::shared_ptr<IXml> MakeToolReply(KxAecCtl& tool);

// Adds "result" = "1" to doc, then parent->AddNode(name, doc, true). Pass
// the document by std::move when the caller keeps no use for it: the host
// may then take it over instead of copying it.
void AddOkResult(const boost::shared_ptr<IXml>& parent, const std::string& name,
                 boost::shared_ptr<IXml> doc);

}  // namespace aec
