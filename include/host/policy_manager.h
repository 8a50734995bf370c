// The host's policy manager: owns a plug-in's policies, moves values between
// policy documents and policies, applies and stores them.
//
// Documents (docs/policies.md has complete examples):
//  - XML: <policies><policy group="G" name="N" source="S">…</policy>…
//    The value is the child element named by the policy's ValueNodeName()
//    ("type" for kernel policies, "value" otherwise); as FilterParams sees
//    the value before the entry is matched to a policy, <value> is taken
//    when present, else <type>. A value element with child elements, or
//    without any content, is handed over as a tree (SetValue(tree));
//    otherwise its trimmed text (SetValue(string)).
//  - JSON (import): {"policies": [{"group": G, "name": N, "source": S,
//    "value": V}, …]}; V a non-empty string (or number) is handed over as
//    text; an array, an object or an empty value as a tree ([] and "" cannot
//    be told apart once parsed; both mean the empty list).
// Absent group: the manager's; absent or empty source: "local". Policies of
// another group than the manager's (after FilterParams) are ignored.
//
// Set*: every incoming (group, name, source, value) first goes through
// FilterParams, which may rewrite it (or return false to drop it); for a
// tree value it sees the tree's own text, and a rewritten text is set
// instead of the tree. A document that cannot be read, or an entry without a
// name or a value, makes the call return false before any policy is touched.
// A policy that rejects its value (an exception from SetValue) or an
// unknown policy name is logged and makes the call return false; the other
// entries are still set. The JSON result document receives one
// <policy name="…" result="1|0"/> per entry of the manager's group (the
// name as sent); the XML call has no result document.
//
// ApplyPolicies applies, in AddPolicy order, every policy whose IsChanged()
// is true, then stores the kernel policies' values and all sources
// (SavePolicies, one transaction per policy, values bound, never spliced
// into SQL). A policy's Apply that throws is logged; the others still run.
//
// Not thread-safe: the host calls a manager from one thread at a time.
// The order of the virtual operations is part of the binary contract.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <boost/shared_ptr.hpp>
#include <memory>
#include <string>
#include <vector>

#include "host/host_api.h"
#include "host/ixml.h"
#include "host/policy.h"

// A JSON document handed to plugin_import_policies: the parsed tree and, for
// messages, the text it was read from.
struct KX_HOST_API parsed_json_data_t {
  boost::property_tree::ptree tree;
  std::string text;
};

class KX_HOST_API PolicyManager {
 public:
  // `plugin` the plug-in's short name, `group` the group of its policies in
  // policy documents, `log_id` the log identifier of its policies' messages.
  PolicyManager(const std::string& plugin, const std::string& group,
                const std::string& description, int log_id);
  virtual ~PolicyManager();

  // Appends one <policy> per policy to `xml`, in AddPolicy order.
  virtual bool GetPoliciesXml(const boost::shared_ptr<IXml>& xml);
  // The policies in the JSON import form; `xml`, when not null, also gets
  // the XML form.
  virtual std::string GetPoliciesJson(boost::shared_ptr<IXml> xml) const;
  virtual bool SetPoliciesXml(const boost::shared_ptr<IXml>& xml);
  virtual bool SetPoliciesJson(const parsed_json_data_t& data,
                               boost::shared_ptr<IXml> result);
  // Adds the policy at the end of the list, then calls its Init().
  virtual void AddPolicy(const std::shared_ptr<IPolicy>& policy);
  virtual bool IsChanged() const;
  // Null when no policy has that name.
  virtual std::shared_ptr<IPolicy> GetPolicy(const std::string& name) const;
  virtual void ApplyPolicies();
  // Every policy's ResetSource, then ApplyPolicies.
  virtual void ResetSource();
  // ResetSource of the one named policy, then ApplyPolicies.
  virtual void ResetPolicySource(const std::string& policy);
  // ResetSourceByName(source) on every policy, then ApplyPolicies.
  virtual void ResetSourceByName(const std::string& source);
  // Called for each incoming parameter before it is set: group, name,
  // source, value. May rewrite them; false drops the parameter. The base
  // accepts everything unchanged.
  virtual bool FilterParams(std::string& group, std::string& name,
                            std::string& source, std::string& value);
  // Stores the values of the given kernel policies and the sources of all
  // given policies in the settings database.
  virtual void SavePolicies(
      const std::vector<std::shared_ptr<IPolicy>>& policies) const;

  // Sets `value` from `source` on the named policy (SetValue then
  // SetSource). False when there is no such policy or it rejected the value.
  template <class T>
  bool SetValueToPolicy(const std::string& policy, const std::string& source,
                        const T& value);

  const std::string& Plugin() const { return plugin_; }
  const std::string& Group() const { return group_; }
  const std::string& Description() const { return description_; }
  int LogId() const { return log_id_; }
  const std::vector<std::shared_ptr<IPolicy>>& Policies() const {
    return policies_;
  }

 private:
  bool SetOne(std::string group, std::string name, std::string source,
              std::string text, const boost::property_tree::ptree* tree,
              const boost::shared_ptr<IXml>& result);

  std::string plugin_;
  std::string group_;
  std::string description_;
  int log_id_;
  std::vector<std::shared_ptr<IPolicy>> policies_;
};

template <>
KX_HOST_API bool PolicyManager::SetValueToPolicy<std::string>(
    const std::string& policy, const std::string& source,
    const std::string& value);

// The manager of a plug-in whose policies include kernel policies. Adds no
// operation of its own; kernel policies read their manager's plug-in name
// and log identifier from it.
class KX_HOST_API KernelPolicyManager : public PolicyManager {
 public:
  KernelPolicyManager(const std::string& plugin, const std::string& group,
                      const std::string& description, int log_id);
  ~KernelPolicyManager() override;
};
