// The plug-in's definition of IXml::AddArray.
//
// Include this header (not only host/ixml.h) wherever AddArray is called. The
// two instantiations the plug-in uses are compiled once in
// ixml_add_array.cpp.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "host/ixml.h"

template <class Container>
void IXml::AddArray(const Container& items, const std::string& name) {
  for (const auto& item : items) AddValue(name, item, true);
}

extern template void IXml::AddArray<std::vector<std::string>>(
    const std::vector<std::string>&, const std::string&);
extern template void IXml::AddArray<std::set<std::string>>(
    const std::set<std::string>&, const std::string&);
