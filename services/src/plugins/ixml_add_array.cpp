#include "ixml_add_array.h"

template void IXml::AddArray<std::vector<std::string>>(
    const std::vector<std::string>&, const std::string&);
template void IXml::AddArray<std::set<std::string>>(
    const std::set<std::string>&, const std::string&);
