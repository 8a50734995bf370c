// The policy "exceptions": resource paths that execution control leaves
// alone, kept in "/opt/korvex/etc/aec/resource-exception.conf" as a JSON
// object with the array "resource_list" (sorted, each path once; an empty set
// is written as "").
//
// Construction never fails for a bad file: it is logged and the set starts
// empty. Apply writes the file atomically, records the policy's source as
// the exception source (also "local") and reloads the rules; a failed write
// raises boost::property_tree::json_parser_error ("write error") before the
// sources are touched. Not thread-safe.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <set>
#include <string>

#include "aec_policies/aecfilepolicy.h"
#include "host/policy_manager.h"

class AecExceptionsPolicy : public AecFilePolicy {
 public:
  explicit AecExceptionsPolicy(const KernelPolicyManager& manager);
  ~AecExceptionsPolicy() override;

  // Keeps the policy's own source on purpose: a non-"local" source is written
  // again as the exception source and the rule set's checksum recomputed.
  void ResetSource() override;
  // Import form: the tree's children are the paths (keys ignored); a path
  // that is not well-formed UTF-8 is logged and left out.
  void SetValue(const boost::property_tree::ptree& value) override;
  using LocalPolicy::SetValue;
  // True when the rule reload succeeded (then the changed flag is lowered).
  bool Apply() override;

  // The element values of "resource_list"; a missing key raises
  // boost::property_tree::ptree_bad_path.
  static std::set<std::string> Get(const boost::property_tree::ptree& tree);
  static const std::string& FilePath();

  const std::set<std::string>& Exceptions() const { return exceptions_; }

 private:
  // Records the source again and recomputes the checksum it is part of.
  void SourceWasReset() override;
  void RecordSource();

  std::set<std::string> exceptions_;
};
