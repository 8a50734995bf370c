#include "aec_exceptions_file.h"

#include "aec_config_read.h"
#include "aec_paths.h"
#include "json_config_file.h"

namespace aec {

std::vector<std::string> ExceptionsOf(const boost::property_tree::ptree& tree) {
  std::vector<std::string> paths;
  for (const auto& element : tree.get_child("resource_list")) {
    paths.push_back(element.second.data());
  }
  return paths;
}

std::vector<std::string> ReadExceptionsFile() {
  return ExceptionsOf(
      ReadJsonConfigFile(kResourceExceptionPath, kMaxExceptionsFileBytes));
}

void WriteExceptionsFile(const std::set<std::string>& paths) {
  boost::property_tree::ptree list;
  for (const std::string& path : paths) {
    boost::property_tree::ptree element;
    element.put_value(path);
    list.push_back(std::make_pair(std::string(), element));
  }
  boost::property_tree::ptree tree;
  tree.add_child("resource_list", list);
  WriteJsonConfig(kResourceExceptionPath, tree, kConfigDir);
}

}  // namespace aec
