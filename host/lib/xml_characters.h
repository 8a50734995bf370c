// The characters a parsed document may carry in its values.
//
// XML 1.0 admits no control character but tab, line feed and carriage
// return, yet the parser decodes a character reference such as "&#0;" or
// "&#1;" into the byte it names. The plug-in reads every value as a C
// string, so a NUL would silently cut a value ("evil&#0;../../x" would
// reach it as "evil") and other control characters would travel into rule
// names, logs and replies. A document holding one is refused as malformed
// instead, before anything reads a value of it.
#pragma once

#include <boost/property_tree/ptree.hpp>

namespace kxhost {

// Throws std::runtime_error ("malformed XML: character U+0000 in the
// attribute 'name' of <rule>") for the first element text, attribute value
// or element or attribute name that holds a byte below 0x20 other than tab,
// line feed and carriage return. `root_name` names the element whose
// content `tree` is. Walks without recursion, so any depth the parser
// produced is checked without growing the stack.
void RefuseControlCharacters(const std::string& root_name,
                             const boost::property_tree::ptree& tree);

}  // namespace kxhost
