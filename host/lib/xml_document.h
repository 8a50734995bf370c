// The host's IXml: one XML element held as a Boost property tree.
//
// Mapping of a request document (docs/protocol.md):
//   GetCommand()        the element's attribute "command"
//   GetAttribute(n)     the element's attribute n
//   GetParam(n)         the text of the first child element n ("" if empty)
//   GetArray(n)         the texts of all child elements n, in order
//   GetNode(n)          a copy of the first child element n
// The tree holds the element's content: attributes under "<xmlattr>", child
// elements under their names, the text as the tree's data.
//
// ToString always gives well-formed XML, whatever the values hold: a value
// XML cannot carry (invalid UTF-8, a C0 control other than tab, LF and CR,
// U+FFFE, U+FFFF) is written with U+FFFD in its place, a name that is not
// an XML name with '_' for each byte not allowed (kxtext::ToXmlText,
// kxtext::ToXmlName); comments are not written.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <boost/shared_ptr.hpp>
#include <string>
#include <vector>

#include "host/ixml.h"
#include "internal_api.h"

namespace kxhost {

class KX_HOST_INTERNAL XmlDocument : public IXml {
 public:
  XmlDocument() = default;
  XmlDocument(std::string name, boost::property_tree::ptree content);
  ~XmlDocument() override;

  void AddValue(const std::string& name, const std::string& value,
                bool as_array_item) override;
  void AddNode(const std::string& name, boost::shared_ptr<IXml> child,
               bool as_array_item) override;
  void SetAttribute(const std::string& name, const std::string& value) override;
  void SetText(const std::string& text) override;
  std::string GetText() const override;
  std::string Name() const override;
  char* GetCommand() override;
  void SetCommand(const std::string& command) override;
  bool HasChild(const std::string& name) const override;
  std::size_t CountChildren(const std::string& name) const override;
  std::vector<std::string> ChildNames() const override;
  std::string ToString(const std::string& root) const override;
  boost::shared_ptr<IXml> Clone() const override;
  char* GetParam(const std::string& name) override;
  char* GetAttribute(const std::string& name) override;
  std::vector<boost::shared_ptr<IXml>> GetNodes(
      const std::string& name) const override;
  boost::shared_ptr<IXml> GetNode(const std::string& name) override;

  // The element's content (attributes under "<xmlattr>").
  const boost::property_tree::ptree& Tree() const { return tree_; }
  boost::property_tree::ptree& Tree() { return tree_; }

 private:
  std::string name_;
  boost::property_tree::ptree tree_;
};

// Parses XML text holding one root element. Throws std::runtime_error with
// the parser's message (and line) for malformed text or more than one root,
// and kxdoc::DocumentLimitError (a std::runtime_error) for text beyond
// kxdoc::kHostDocumentLimits, checked before any tree is built, and for a
// control character in a value or name (xml_characters.h).
KX_HOST_INTERNAL boost::shared_ptr<XmlDocument> ParseXml(
    const std::string& text);

// The content tree of any document made by this host (every IXml in this
// process is an XmlDocument); throws std::logic_error for another type.
KX_HOST_INTERNAL const boost::property_tree::ptree& TreeOf(const IXml& xml);

// `text` with the five markup characters as entities (&amp; &lt; &gt;
// &quot; &apos;): safe as element text and as an attribute value in either
// quotes, in XML and in HTML. Other bytes are kept as they are.
KX_HOST_INTERNAL std::string EscapeMarkup(const std::string& text);

}  // namespace kxhost
