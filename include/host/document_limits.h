// Bounds on the documents the host reads: requests, policies documents,
// import JSON and the host's own small JSON files.
//
// The XML and JSON parsers the host uses (Boost's property tree readers)
// descend one C++ call per level of nesting, and every later walk of the
// tree does the same, so a document nested deeply enough ends the process on
// its stack. The checks here look at the text alone, in one linear pass and
// with constant memory, before any tree is built: a document they accept
// can be parsed without recursing past `max_depth` levels.
//
// The depth counted is the number of elements nested at one point, the
// innermost included (XML: `<a/>` is one level, `<a><b/></a>` two), or of
// open objects and arrays (JSON: `{"a":1}` is one level). For XML the
// parser accepts, the depth counted is the depth of the tree it builds; for
// JSON it is never less. Text the parser would refuse may be refused here
// first, with a limit message instead of a syntax message.
//
// Pure functions without state; the Check* ones throw DocumentLimitError.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <cstddef>
#include <istream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "host/host_api.h"

namespace kxdoc {

struct DocumentLimits {
  std::size_t max_bytes;
  std::size_t max_depth;
};

// Every document the host reads for a client or a tool: one request, one
// policies document, one import. A real request nests four levels, a
// policies document with structured values about eight; a whitelist of
// tens of thousands of entries stays far below the size.
inline constexpr DocumentLimits kHostDocumentLimits{16u << 20, 64};

// Which bound a document broke, as words for a message ("the document is
// nested deeper than 64 levels").
class KX_HOST_API DocumentLimitError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws DocumentLimitError when `text` is larger than limits.max_bytes or
// nests elements deeper than limits.max_depth. Comments, CDATA sections,
// processing instructions, the document type declaration and quoted
// attribute values are skipped as the parser skips them.
KX_HOST_API void CheckXmlLimits(std::string_view text,
                                const DocumentLimits& limits);

// The same for JSON text: objects and arrays outside strings.
KX_HOST_API void CheckJsonLimits(std::string_view text,
                                 const DocumentLimits& limits);

// Reads all of `in`, but never more than max_bytes + 1 bytes: a longer
// input throws DocumentLimitError without being held in memory. A read
// error throws std::runtime_error.
KX_HOST_API std::string ReadLimited(std::istream& in, std::size_t max_bytes);

// CheckJsonLimits, then Boost's JSON reader. Throws DocumentLimitError or
// boost::property_tree::json_parser_error.
KX_HOST_API boost::property_tree::ptree ParseJson(const std::string& text,
                                                  const DocumentLimits& limits);

}  // namespace kxdoc
