// Small policies and a manager of the tests' own, built on the host's bases,
// that record what the framework does to them.
#pragma once

#include <sqlite3.h>

#include <boost/property_tree/ptree.hpp>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host/db.h"
#include "host/policy.h"
#include "host/policy_manager.h"
#include "host/request_getters.h"

namespace hostpolicytest {

// What a pointer to a virtual member holds on the Itanium C++ ABI.
template <class Member>
std::uintptr_t SlotValue(Member member) {
  static_assert(sizeof(Member) == 2 * sizeof(void*),
                "a pointer to member function is two words");
  std::uintptr_t raw = 0;
  std::memcpy(&raw, &member, sizeof raw);
  return raw;
}
constexpr std::uintptr_t Slot(int n) { return 1 + 8 * (n - 1); }

// Every framework call on the test policies, in order: "<name>:<what>".
using Journal = std::vector<std::string>;

class RecordingLocalPolicy : public LocalPolicy {
 public:
  RecordingLocalPolicy(const std::string& name, Journal* journal,
                       const std::string& description = "Test policy")
      : LocalPolicy(name, "string", description), journal_(journal) {}

  void SetSource(const std::string& source) override {
    Note("SetSource " + source);
    LocalPolicy::SetSource(source);
  }
  void ResetSource() override {
    Note("ResetSource");
    LocalPolicy::ResetSource();
  }
  void SetValue(const std::string& value) override {
    Note("SetValue(text) " + value);
    if (reject_) throw std::runtime_error("value refused by the test");
    texts_.push_back(value);
    LocalPolicy::SetValue(value);
  }
  void SetValue(const boost::property_tree::ptree& value) override {
    Note("SetValue(tree)");
    if (reject_) throw std::runtime_error("value refused by the test");
    trees_.push_back(value);
    changed_ = true;
  }
  bool Apply() override {
    Note("Apply");
    if (throw_on_apply_) throw std::runtime_error("apply failed in the test");
    return LocalPolicy::Apply();
  }
  void Init() override {
    Note("Init");
    LocalPolicy::Init();
  }

  void SetDefault(const std::string& value) { default_value_ = value; }
  void MarkChanged() { changed_ = true; }

  std::vector<std::string> texts_;
  std::vector<boost::property_tree::ptree> trees_;
  bool reject_ = false;
  bool throw_on_apply_ = false;

 private:
  void Note(const std::string& what) {
    if (journal_ != nullptr) journal_->push_back(name_ + ":" + what);
  }
  Journal* journal_;
};

class RecordingKernelPolicy : public KernelPolicy {
 public:
  RecordingKernelPolicy(const KernelPolicyManager& manager,
                        const std::string& name, const std::string& text,
                        std::shared_ptr<PolicyDbRequestGetter> getter,
                        Journal* journal, std::string db_name = "",
                        std::string description = "Test kernel policy")
      : KernelPolicy(manager, text),
        name_(name),
        db_name_(db_name.empty() ? name : std::move(db_name)),
        description_(std::move(description)),
        getter_(std::move(getter)),
        journal_(journal) {}

  std::string Name() const override { return name_; }
  std::string Description() const override { return description_; }
  std::map<std::string, std::string> ValueDescriptions() const override {
    return {{"0", "Disabled"}, {"1", "Enabled"}};
  }
  std::shared_ptr<PolicyDbRequestGetter> RequestGetter() const override {
    return getter_;
  }
  std::string DbPolicyName() const override { return db_name_; }
  void ApplyKernelValue(int value) override {
    if (journal_ != nullptr) {
      journal_->push_back(name_ + ":ApplyKernelValue " + std::to_string(value));
    }
    applied_.push_back(value);
    if (throw_on_apply_) throw std::runtime_error("kernel refused the value");
    // Like a refused hard mode: the policy falls back on its own value.
    if (fall_back_from_ == value) KernelPolicy::SetValue("0");
  }

  std::vector<int> applied_;
  bool throw_on_apply_ = false;
  int fall_back_from_ = -1000;

 private:
  std::string name_;
  std::string db_name_;
  std::string description_;
  std::shared_ptr<PolicyDbRequestGetter> getter_;
  Journal* journal_;
};

// A manager whose filter records every parameter and may rewrite or drop
// them.
class RecordingManager : public KernelPolicyManager {
 public:
  RecordingManager() : KernelPolicyManager("aec", "aec", "Test manager", 32) {}

  struct Param {
    std::string group, name, source, value;
  };
  bool FilterParams(std::string& group, std::string& name, std::string& source,
                    std::string& value) override {
    filtered_.push_back({group, name, source, value});
    if (drop_name_ == name) return false;
    auto renamed = renames_.find(name);
    if (renamed != renames_.end()) {
      group = Group();
      name = renamed->second;
    }
    auto rewritten = rewrites_.find(name);
    if (rewritten != rewrites_.end()) value = rewritten->second;
    return true;
  }

  std::vector<Param> filtered_;
  std::string drop_name_;
  std::map<std::string, std::string> renames_;   // old name -> new name
  std::map<std::string, std::string> rewrites_;  // name -> new value text
};

// Runs one statement through the host's database call; the first value of
// the first row, or "<none>" (no row) / "<failed>" (no table).
inline std::string QueryOne(const std::string& sql) {
  db_response_t response;
  db_execute(sql.c_str(), &response);
  if (response.table == nullptr) return "<failed>";
  std::string value = "<none>";
  if (response.rows > 0 && response.table[response.columns] != nullptr) {
    value = response.table[response.columns];
  }
  sqlite3_free_table(response.table);
  return value;
}

}  // namespace hostpolicytest
