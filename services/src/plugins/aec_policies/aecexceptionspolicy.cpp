#include "aec_policies/aecexceptionspolicy.h"

#include <boost/property_tree/json_parser.hpp>
#include <exception>

#include "aec_config_lock.h"
#include "aec_exceptions_file.h"
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
    const auto paths = aec::ReadExceptionsFile();
    exceptions_.insert(paths.begin(), paths.end());
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
  const auto paths = aec::ExceptionsOf(tree);
  return std::set<std::string>(paths.begin(), paths.end());
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
  // Write, load and seal are one change under the configuration lock; the
  // tool run below shares it.
  const aec::ConfigLock lock;
  aec::WriteExceptionsFile(exceptions_);
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
  const aec::ConfigLock lock;
  RecordSource();
  // The sources file is checksummed with the rule configuration.
  aec::recalc_common_crc();
}

void AecExceptionsPolicy::RecordSource() {
  AecPolicySources* sources = AecPolicySources::Get();
  sources->SetExceptionSource(Source());
  sources->WriteConfig();
}
