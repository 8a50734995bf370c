// The host's policy classes.
//
// A policy is one named setting of a plug-in with a value, a default, and the
// name of the source that set it ("local", "dorvi", "yunko"). The policy
// manager (policy_manager.h) owns the policies, feeds them values from policy
// documents and applies them.
//
// Failure: operations a policy does not support throw std::logic_error
// ("Unsupported method " + class + "::" + operation). SetValue may throw the
// policy's own parse errors; the manager catches them per policy.
// Not thread-safe: the host drives policies from one thread at a time.
//
// The order of the virtual operations of IPolicy (slots 1 to 19) and the
// three added by KernelPolicy (20 to 22) is part of the binary contract.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <boost/shared_ptr.hpp>
#include <map>
#include <memory>
#include <string>

#include "host/host_api.h"
#include "host/ixml.h"
#include "host/request_getters.h"

class KernelPolicyManager;

class KX_HOST_API IPolicy {
 public:
  virtual ~IPolicy();                                                // 1-2
  virtual std::string Source() const = 0;                            // 3
  virtual void SetSource(const std::string& source) = 0;             // 4
  virtual void ResetSource() = 0;                                    // 5
  virtual void ResetSourceByName(const std::string& source) = 0;     // 6
  virtual std::string Type() const = 0;                              // 7
  virtual std::string Value() const = 0;                             // 8
  virtual void SetValue(const std::string& value) = 0;               // 9
  virtual void SetValue(const boost::property_tree::ptree& value) = 0;  // 10
  virtual std::string DefaultValue() const = 0;                      // 11
  virtual std::string ValueNodeName() const = 0;                     // 12
  virtual std::string Name() const = 0;                              // 13
  virtual std::string Description() const = 0;                       // 14
  virtual std::map<std::string, std::string> ValueDescriptions()
      const = 0;                                                     // 15
  // The policy as a document: attributes name, type, source; children
  // description, the value node (ValueNodeName()), default, and one
  // "value_description" per entry of ValueDescriptions().
  virtual boost::shared_ptr<IXml> GetXml() = 0;                      // 16
  virtual bool Apply() = 0;                                          // 17
  virtual bool IsChanged() const = 0;                                // 18
  // Called once by the manager right after the policy is added. Does
  // nothing here.
  virtual void Init();                                               // 19
};

// A policy whose value the plug-in stores and applies itself. The value is a
// plain string; SetValue(string) stores it and raises the changed flag when it
// differs; SetValue(tree) stores the tree's own data the same way. Apply only
// lowers the changed flag. ResetSource returns to "local" without touching
// the value or the changed flag; ResetSourceByName does so only when the
// policy is controlled by the named source (it never calls the virtual
// ResetSource, so an override of one is not run by the other).
class KX_HOST_API LocalPolicy : public IPolicy {
 public:
  LocalPolicy(const std::string& name, const std::string& type,
              const std::string& description);
  ~LocalPolicy() override;

  std::string Source() const override;
  void SetSource(const std::string& source) override;
  void ResetSource() override;
  void ResetSourceByName(const std::string& source) override;
  std::string Type() const override;
  std::string Value() const override;
  void SetValue(const std::string& value) override;
  void SetValue(const boost::property_tree::ptree& value) override;
  std::string DefaultValue() const override;
  std::string ValueNodeName() const override;  // "value"
  std::string Name() const override;
  std::string Description() const override;
  std::map<std::string, std::string> ValueDescriptions() const override;
  boost::shared_ptr<IXml> GetXml() override;
  bool Apply() override;
  bool IsChanged() const override;

 protected:
  std::string name_;
  std::string type_;
  std::string description_;
  std::string source_;  // starts "local"
  std::string value_;
  std::string default_value_;
  bool changed_ = false;
};

// A policy whose integer value lives in the settings database (through its
// request getter) and is pushed to the kernel by ApplyKernelValue.
//
// Init reads the stored value (a missing row: DefaultValue()) and the stored
// source, then calls ApplyKernelValue once. SetValue refuses, with
// std::invalid_argument, a text that is not a key of ValueDescriptions()
// (when the policy describes its values). Apply calls ApplyKernelValue with
// the integer form of Value() (a value that is not a number applies 0) and
// lowers the changed flag. ResetSource returns to "local" and to the default
// value. Values are stored by the manager (SavePolicies), not here.
class KX_HOST_API KernelPolicy : public IPolicy {
 public:
  // `text` is the policy's default value; empty: the request getter's value
  // for a missing row.
  KernelPolicy(const KernelPolicyManager& manager, const std::string& text);
  ~KernelPolicy() override;

  std::string Source() const override;
  void SetSource(const std::string& source) override;
  void ResetSource() override;
  void ResetSourceByName(const std::string& source) override;
  std::string Type() const override;           // "enum"
  std::string Value() const override;
  void SetValue(const std::string& value) override;
  // Takes the tree's own data as the value text.
  void SetValue(const boost::property_tree::ptree& value) override;
  std::string DefaultValue() const override;
  std::string ValueNodeName() const override;  // "type"
  boost::shared_ptr<IXml> GetXml() override;
  bool Apply() override;
  bool IsChanged() const override;
  void Init() override;

  virtual std::shared_ptr<PolicyDbRequestGetter> RequestGetter()
      const = 0;                                             // 20
  virtual std::string DbPolicyName() const;                  // 21: Name()
  virtual void ApplyKernelValue(int value) = 0;              // 22

  int LogId() const;           // the manager's log identifier
  std::string Plugin() const;  // the manager's plug-in name

 private:
  std::string plugin_;
  int log_id_;
  std::string text_;
  std::string source_;
  std::string value_;
  bool changed_ = false;
};
