#include "aec_policies/aecexceptionspolicy.h"

#include <boost/property_tree/json_parser.hpp>
#include <exception>

#include "aec_helper.h"
#include "aec_log.h"
#include "aec_paths.h"
#include "host/policy_sources.h"
#include "host/utf8_text.h"
#include "json_config_file.h"

namespace {

constexpr const char* kLogFile = "aecexceptionspolicy";

}  // namespace

AecExceptionsPolicy::AecExceptionsPolicy(const KernelPolicyManager& manager)
    : AecFilePolicy("exceptions", "AEC resource exceptions", manager) {
  // May be empty: the host's record as it stands, not a default.
  source_ = AecPolicySources::Get()->GetExceptionSource();
  try {
    boost::property_tree::ptree tree;
    boost::property_tree::read_json(FilePath(), tree);
    exceptions_ = Get(tree);
  } catch (const std::exception& e) {
    // The format has one conversion more than there are values; the last
    // one is given an empty text so the line stays well-defined.
    AEC_LOG_CODED(kLogFile, 7, aec::LogCode(aec::kPolicyLogId, 3),
                  log_tag_.c_str(), "[%d] %s: failed o parse %s: %s", e.what(),
                  "");
    exceptions_.clear();
  }
}

AecExceptionsPolicy::~AecExceptionsPolicy() = default;

const std::string& AecExceptionsPolicy::FilePath() {
  return aec::kResourceExceptionPath;
}

std::set<std::string> AecExceptionsPolicy::Get(
    const boost::property_tree::ptree& tree) {
  std::set<std::string> result;
  for (const auto& element : tree.get_child("resource_list")) {
    result.insert(element.second.data());
  }
  return result;
}

void AecExceptionsPolicy::SetValue(const boost::property_tree::ptree& value) {
  std::set<std::string> incoming;
  for (const auto& element : value) {
    const std::string& path = element.second.data();
    // The JSON writer keeps bytes from 0x80 up as they are and the reader
    // refuses most that are not UTF-8: one such path (a policy's XML can
    // carry it) would make the whole file unreadable, and every exception
    // would be gone at the next start. Leaving it out only narrows what is
    // excepted.
    if (!kxtext::IsUtf8(path)) {
      AEC_LOG_CODED(
          kLogFile, 4, aec::LogCode(aec::kPolicyLogId, 4), log_tag_.c_str(),
          "[%d] %s: exception '%s' is not UTF-8 text: left out", path.c_str());
      continue;
    }
    incoming.insert(path);
  }
  if (incoming == exceptions_) return;
  exceptions_ = std::move(incoming);
  changed_ = true;
}

bool AecExceptionsPolicy::Apply() {
  boost::property_tree::ptree list;
  for (const std::string& path : exceptions_) {
    boost::property_tree::ptree element;
    element.put_value(path);
    list.push_back(std::make_pair(std::string(), element));
  }
  boost::property_tree::ptree tree;
  tree.add_child("resource_list", list);
  aec::WriteJsonConfig(FilePath(), tree, aec::kConfigDir);
  RecordSource();
  const bool ok = aec::reload_rules();
  if (ok) changed_ = false;
  return ok;
}

void AecExceptionsPolicy::ResetSource() {
  if (Source() == aec::kPolicySourceLocal) return;
  SourceWasReset();
}

void AecExceptionsPolicy::SourceWasReset() {
  RecordSource();
  // The sources file is checksummed with the rule configuration.
  aec::recalc_common_crc();
}

void AecExceptionsPolicy::RecordSource() {
  AecPolicySources* sources = AecPolicySources::Get();
  sources->SetExceptionSource(Source());
  sources->WriteConfig();
}
