// IXml: the host's XML document, used both for requests and for replies.
//
// Contract
//  - A document is one element: a name, attributes, child elements and text.
//  - Strings returned as char* (GetCommand, GetParam, GetAttribute) are
//    allocated with new[] by the host and owned by the caller, who releases
//    them with delete[]. Null means "absent"; an empty element gives "".
//  - GetNode returns an empty pointer when the child is absent. The returned
//    document shares nothing with the parent: changing it does not change the
//    parent (a child is copied out).
//  - AddValue/AddNode with as_array_item false set the first child of that
//    name (creating it when missing); with true they append a further child of
//    that name, which is how repeated values and nodes are written.
//  - No operation throws for an absent name. Parsing and printing errors are
//    reported by the host's parser (host/xml_document.h), not here.
//  - Not thread-safe; a document is used by one thread at a time.
//
// The order of the virtual operations is part of the binary contract with
// plug-ins, which call them by slot: AddValue is the first slot,
// AddNode the second, GetCommand the seventh, GetParam the fourteenth,
// GetAttribute the fifteenth and GetNode the seventeenth. The slots between
// them hold operations of this host; new operations go after the destructor.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <string>
#include <vector>

#include "host/host_api.h"

class KX_HOST_API IXml {
 public:
  // slot 1
  virtual void AddValue(const std::string& name, const std::string& value,
                        bool as_array_item) = 0;
  // slot 2
  virtual void AddNode(const std::string& name, boost::shared_ptr<IXml> child,
                       bool as_array_item) = 0;
  // slot 3: sets (or replaces) an attribute of this element.
  virtual void SetAttribute(const std::string& name,
                            const std::string& value) = 0;
  // slot 4: sets the element's own text.
  virtual void SetText(const std::string& text) = 0;
  // slot 5: the element's own text ("" when it has none).
  virtual std::string GetText() const = 0;
  // slot 6: the element's name ("" for a document made empty).
  virtual std::string Name() const = 0;
  // slot 7: the "command" attribute of the element; new[], or null.
  virtual char* GetCommand() = 0;
  // slot 8: sets the "command" attribute.
  virtual void SetCommand(const std::string& command) = 0;
  // slot 9: true when a child element `name` exists.
  virtual bool HasChild(const std::string& name) const = 0;
  // slot 10: how many child elements are named `name`.
  virtual std::size_t CountChildren(const std::string& name) const = 0;
  // slot 11: the names of all child elements, in document order.
  virtual std::vector<std::string> ChildNames() const = 0;
  // slot 12: the document as XML text, with the given root element name
  // (the element's own name when `root` is empty), indented.
  virtual std::string ToString(const std::string& root) const = 0;
  // slot 13: a deep copy of the document.
  virtual boost::shared_ptr<IXml> Clone() const = 0;
  // slot 14: text of the first child element `name`; new[], or null.
  virtual char* GetParam(const std::string& name) = 0;
  // slot 15: attribute `name` of this element; new[], or null.
  virtual char* GetAttribute(const std::string& name) = 0;
  // slot 16: all child elements `name`, in document order, as documents.
  virtual std::vector<boost::shared_ptr<IXml>> GetNodes(
      const std::string& name) const = 0;
  // slot 17: the first child element `name` as a document; empty if absent.
  virtual boost::shared_ptr<IXml> GetNode(const std::string& name) = 0;

  virtual ~IXml();

  // The texts of all child elements `name`, in document order.
  std::vector<std::string> GetArray(const std::string& name);

  // Calls AddValue(name, item, true) for each item in container order.
  // Defined by the plug-in (services/src/plugins/ixml_add_array.h); an empty
  // container adds nothing.
  template <class Container>
  void AddArray(const Container& items, const std::string& name);
};

// The host's factory of documents.
class KX_HOST_API XMLParserBoost {
 public:
  // A new, empty document (no name, no children). Never null.
  static boost::shared_ptr<IXml> CreateEmptyXML();
};

// The host's record of one management command. Owned by the host; a plug-in
// never frees it, it ends through send_message or free_msg_memory.
struct KX_HOST_API parsed_xml_data_t {
  boost::shared_ptr<IXml> xml;    // the request document
  boost::shared_ptr<IXml> reply;  // the reply document, sent by send_message
  // Host's own bookkeeping after the two members plug-ins know about.
  int outcome = 0;  // 0 pending, 1 sent, 2 released without a reply
};
