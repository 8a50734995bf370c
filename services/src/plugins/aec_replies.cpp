#include "aec_replies.h"

#include "aec_paths.h"

namespace aec {

boost::shared_ptr<IXml> MakeErrorReply(const std::string& text) {
  auto doc = XMLParserBoost::CreateEmptyXML();
  doc->AddValue("result", kResultFailed, false);
  doc->AddValue("error_desc", text, false);
  return doc;
}

void AddOkResult(const boost::shared_ptr<IXml>& parent, const std::string& name,
                 boost::shared_ptr<IXml> doc) {
  doc->AddValue("result", kResultOk, false);
  parent->AddNode(name, doc, true);
}

}  // namespace aec
