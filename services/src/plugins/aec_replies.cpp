#include "aec_replies.h"

#include <utility>

#include "aec_paths.h"
#include "host/errors.h"
#include "kxaecctl.h"

namespace aec {

boost::shared_ptr<IXml> MakeErrorReply(const std::string& text) {
  auto doc = XMLParserBoost::CreateEmptyXML();
  doc->AddValue("result", kResultFailed, false);
  doc->AddValue("error_desc", text, false);
  return doc;
}

boost::shared_ptr<IXml> MakeToolReply(KxAecCtl& tool) {
  try {
    tool.Apply();
  } catch (const PluginException& e) {
    return MakeErrorReply(e.what());
  }
  if (tool.GetError() != KxAecCtl::kSuccess) {
    return MakeErrorReply(tool.GetErrorDescription());
  }
  auto doc = XMLParserBoost::CreateEmptyXML();
  doc->AddValue("result", kResultOk, false);
  return doc;
}

void AddOkResult(const boost::shared_ptr<IXml>& parent, const std::string& name,
                 boost::shared_ptr<IXml> doc) {
  doc->AddValue("result", kResultOk, false);
  // Handed over, not shared: a host can then attach it without copying.
  parent->AddNode(name, std::move(doc), true);
}

}  // namespace aec
