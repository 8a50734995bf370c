// Whether a text is one well-formed XML document, by expat's judgement: an
// independent, conforming parser, not the one the host writes with.
#pragma once

#include <expat.h>

#include <string>

namespace kxtest {

// "" when `text` is well-formed; otherwise expat's message and position.
inline std::string XmlWellFormednessError(const std::string& text) {
  XML_Parser parser = XML_ParserCreate("UTF-8");
  if (parser == nullptr) return "cannot create an XML parser";
  std::string error;
  if (XML_Parse(parser, text.data(), static_cast<int>(text.size()), 1) !=
      XML_STATUS_OK) {
    error = std::string(XML_ErrorString(XML_GetErrorCode(parser))) +
            " at line " + std::to_string(XML_GetCurrentLineNumber(parser)) +
            ", column " + std::to_string(XML_GetCurrentColumnNumber(parser));
  }
  XML_ParserFree(parser);
  return error;
}

}  // namespace kxtest
