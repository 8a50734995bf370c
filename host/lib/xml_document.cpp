#include "xml_document.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "host/document_limits.h"
#include "host/utf8_text.h"
#include "xml_characters.h"

namespace kxhost {
namespace {

namespace pt = boost::property_tree;

constexpr const char* kAttributes = "<xmlattr>";

// Names the parser gives to things that are not elements ("<xmlattr>",
// "<xmlcomment>", "<xmltext>") all start with '<', which no element name can.
bool IsElementName(const std::string& name) {
  return !name.empty() && name[0] != '<';
}

char* CopyOut(const std::string& text) {
  char* out = new char[text.size() + 1];
  std::memcpy(out, text.c_str(), text.size() + 1);
  return out;
}

bool IsBlank(const std::string& text) {
  return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

// Indentation between elements reaches the tree as text; it is layout, not
// a value, so an element whose text is only white space has none.
void DropLayoutText(pt::ptree* tree) {
  if (IsBlank(tree->data())) tree->data().clear();
  for (auto& child : *tree) {
    if (child.first != kAttributes) DropLayoutText(&child.second);
  }
}

// Sets (as_array_item false) or appends (true) the child element `name`.
// The tree's path lookups are avoided on purpose: a '.' in a name is part of
// the name here, not a path separator.
// `child` is consumed: its content is swapped into place, because a
// property tree has no move and a reply may hold thousands of nodes.
void PlaceChild(pt::ptree* tree, const std::string& name, pt::ptree& child,
                bool as_array_item) {
  pt::ptree* slot = nullptr;
  if (!as_array_item) {
    auto found = tree->find(name);
    if (found != tree->not_found()) slot = &tree->to_iterator(found)->second;
  }
  if (slot == nullptr) {
    tree->push_back(std::make_pair(name, pt::ptree()));
    slot = &tree->back().second;
  }
  slot->swap(child);
}

void AppendMarkupEscaped(std::string* out, const std::string& text) {
  for (const char c : text) {
    switch (c) {
      case '<': out->append("&lt;"); break;
      case '>': out->append("&gt;"); break;
      case '&': out->append("&amp;"); break;
      case '"': out->append("&quot;"); break;
      case '\'': out->append("&apos;"); break;
      default: out->push_back(c);
    }
  }
}

// Text as the tree writer encodes it: a text of spaces only keeps its first
// space as a character reference (the parser would drop it as layout
// otherwise), the five markup characters become entities.
void AppendEncoded(std::string* out, const std::string& text) {
  if (text.empty()) return;
  if (text.find_first_not_of(' ') == std::string::npos) {
    out->append("&#32;");
    out->append(text.size() - 1, ' ');
    return;
  }
  AppendMarkupEscaped(out, text);
}

// Writes ` name="value"` for each attribute; a name that becomes the same as
// an earlier one's is left out, as XML allows one of each.
void AppendAttributes(std::string* out, const pt::ptree& attributes) {
  std::vector<std::string> written;
  for (const auto& attribute : attributes) {
    std::string name = kxtext::ToXmlName(attribute.first);
    if (std::find(written.begin(), written.end(), name) != written.end()) {
      continue;
    }
    out->push_back(' ');
    out->append(name);
    out->append("=\"");
    AppendEncoded(out, kxtext::ToXmlText(attribute.second.data()));
    out->push_back('"');
    written.push_back(std::move(name));
  }
}

// Writes `node` as the element `name`, indented by `depth` levels of two
// spaces, in the layout of Boost's pretty-printing tree writer (replies have
// always been printed that way and clients compare them as text), but
// straight from the tree, without a copy or an ostream: for a reply of
// thousands of resources those were most of a `get`'s cost.
// Whatever the values hold, the text is well-formed XML: text and attribute
// values through kxtext::ToXmlText (U+FFFD for what XML cannot carry),
// element and attribute names through kxtext::ToXmlName. Comments and other
// parser bookkeeping are not written; a reply never carries them. Of the
// attributes only the first attribute set counts.
void WriteElement(std::string* out, const std::string& name,
                  const pt::ptree& node, int depth) {
  const std::string text = kxtext::ToXmlText(node.data());
  const pt::ptree* attributes = nullptr;
  bool has_elements = false;
  for (const auto& child : node) {
    if (child.first == kAttributes) {
      if (attributes == nullptr) attributes = &child.second;
    } else if (IsElementName(child.first) || child.first.empty()) {
      has_elements = true;
    }
  }
  out->append(static_cast<std::size_t>(depth) * 2, ' ');
  out->push_back('<');
  out->append(name);
  if (attributes != nullptr) AppendAttributes(out, *attributes);
  if (text.empty() && !has_elements) {
    // Nothing but attributes, if any: one self-closing tag.
    out->append("/>\n");
    return;
  }
  out->push_back('>');
  if (has_elements) {
    out->push_back('\n');
    if (!text.empty()) {
      out->append(static_cast<std::size_t>(depth + 1) * 2, ' ');
      AppendEncoded(out, text);
      out->push_back('\n');
    }
    for (const auto& child : node) {
      if (child.first == kAttributes) continue;
      if (IsElementName(child.first) || child.first.empty()) {
        WriteElement(out, kxtext::ToXmlName(child.first), child.second,
                     depth + 1);
      }
    }
    out->append(static_cast<std::size_t>(depth) * 2, ' ');
  } else {
    AppendEncoded(out, text);
  }
  out->append("</");
  out->append(name);
  out->append(">\n");
}

}  // namespace

XmlDocument::XmlDocument(std::string name, boost::property_tree::ptree content)
    : name_(std::move(name)), tree_(std::move(content)) {}

XmlDocument::~XmlDocument() = default;

void XmlDocument::AddValue(const std::string& name, const std::string& value,
                           bool as_array_item) {
  pt::ptree child(value);
  PlaceChild(&tree_, name, child, as_array_item);
}

void XmlDocument::AddNode(const std::string& name,
                          boost::shared_ptr<IXml> child, bool as_array_item) {
  // An empty child is nothing to attach; the contract forbids throwing for
  // it.
  if (!child) return;
  // A document that only this call holds can be taken over instead of
  // copied: nobody is left to see it emptied.
  auto* own = child.use_count() == 1 ? dynamic_cast<XmlDocument*>(child.get())
                                     : nullptr;
  if (own != nullptr) {
    PlaceChild(&tree_, name, own->Tree(), as_array_item);
    return;
  }
  pt::ptree copy = TreeOf(*child);
  PlaceChild(&tree_, name, copy, as_array_item);
}

void XmlDocument::SetAttribute(const std::string& name,
                               const std::string& value) {
  auto found = tree_.find(kAttributes);
  if (found == tree_.not_found()) {
    tree_.push_front(std::make_pair(kAttributes, pt::ptree()));
    found = tree_.find(kAttributes);
  }
  pt::ptree attribute(value);
  PlaceChild(&found->second, name, attribute, false);
}

void XmlDocument::SetText(const std::string& text) { tree_.data() = text; }

std::string XmlDocument::GetText() const { return tree_.data(); }

std::string XmlDocument::Name() const { return name_; }

char* XmlDocument::GetCommand() { return GetAttribute("command"); }

void XmlDocument::SetCommand(const std::string& command) {
  SetAttribute("command", command);
}

bool XmlDocument::HasChild(const std::string& name) const {
  return IsElementName(name) && tree_.find(name) != tree_.not_found();
}

std::size_t XmlDocument::CountChildren(const std::string& name) const {
  return IsElementName(name) ? tree_.count(name) : 0;
}

std::vector<std::string> XmlDocument::ChildNames() const {
  std::vector<std::string> names;
  for (const auto& child : tree_) {
    if (IsElementName(child.first)) names.push_back(child.first);
  }
  return names;
}

std::string XmlDocument::ToString(const std::string& root) const {
  std::string element = root.empty() ? name_ : root;
  if (element.empty()) element = "document";
  std::string text;
  WriteElement(&text, kxtext::ToXmlName(element), tree_, 0);
  return text;
}

boost::shared_ptr<IXml> XmlDocument::Clone() const {
  return boost::make_shared<XmlDocument>(name_, tree_);
}

char* XmlDocument::GetParam(const std::string& name) {
  if (!IsElementName(name)) return nullptr;
  auto found = tree_.find(name);
  if (found == tree_.not_found()) return nullptr;
  return CopyOut(found->second.data());
}

char* XmlDocument::GetAttribute(const std::string& name) {
  auto attributes = tree_.find(kAttributes);
  if (attributes == tree_.not_found()) return nullptr;
  auto found = attributes->second.find(name);
  if (found == attributes->second.not_found()) return nullptr;
  return CopyOut(found->second.data());
}

std::vector<boost::shared_ptr<IXml>> XmlDocument::GetNodes(
    const std::string& name) const {
  std::vector<boost::shared_ptr<IXml>> nodes;
  if (!IsElementName(name)) return nodes;
  for (const auto& child : tree_) {
    if (child.first == name) {
      nodes.push_back(boost::make_shared<XmlDocument>(name, child.second));
    }
  }
  return nodes;
}

boost::shared_ptr<IXml> XmlDocument::GetNode(const std::string& name) {
  if (!IsElementName(name)) return {};
  auto found = tree_.find(name);
  if (found == tree_.not_found()) return {};
  return boost::make_shared<XmlDocument>(name, found->second);
}

boost::shared_ptr<XmlDocument> ParseXml(const std::string& text) {
  // Before the parser: it recurses once per level and would end the process
  // on a deep enough document.
  kxdoc::CheckXmlLimits(text, kxdoc::kHostDocumentLimits);
  pt::ptree parsed;
  std::istringstream in(text);
  try {
    pt::read_xml(in, parsed, pt::xml_parser::no_comments);
  } catch (const pt::xml_parser_error& e) {
    throw std::runtime_error("malformed XML: " + e.message() + " (line " +
                             std::to_string(e.line()) + ")");
  }
  const pt::ptree::value_type* root = nullptr;
  for (const auto& top : parsed) {
    if (!IsElementName(top.first)) continue;
    if (root != nullptr) {
      throw std::runtime_error("malformed XML: more than one root element");
    }
    root = &top;
  }
  if (root == nullptr) throw std::runtime_error("malformed XML: no element");
  if (!IsBlank(parsed.data())) {
    throw std::runtime_error("malformed XML: text outside the root element");
  }
  RefuseControlCharacters(root->first, root->second);
  auto document = boost::make_shared<XmlDocument>(root->first, root->second);
  DropLayoutText(&document->Tree());
  return document;
}

const boost::property_tree::ptree& TreeOf(const IXml& xml) {
  const auto* document = dynamic_cast<const XmlDocument*>(&xml);
  if (document == nullptr) {
    throw std::logic_error("TreeOf: the document was not made by this host");
  }
  return document->Tree();
}

std::string EscapeMarkup(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  AppendMarkupEscaped(&out, text);
  return out;
}

}  // namespace kxhost

IXml::~IXml() = default;

std::vector<std::string> IXml::GetArray(const std::string& name) {
  std::vector<std::string> texts;
  for (const auto& node : GetNodes(name)) texts.push_back(node->GetText());
  return texts;
}

boost::shared_ptr<IXml> XMLParserBoost::CreateEmptyXML() {
  return boost::make_shared<kxhost::XmlDocument>();
}
