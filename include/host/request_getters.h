// Request getters: where a kernel policy's value lives in the settings
// database.
//
// GetRequestReadData(policy) is the SQL text that reads the named policy's
// value as a one-column result (no row: the value was never stored). The
// host's policy framework also asks a getter how to store a value and what
// the value is when no row exists. Getters hold no state; they are shared
// between policies and may be used from any thread.
#pragma once

#include <string>

#include "host/host_api.h"

class KX_HOST_API PolicyDbRequestGetter {
 public:
  virtual ~PolicyDbRequestGetter();
  // SQL reading the value of `policy`; a one-column result.
  virtual std::string GetRequestReadData(const std::string& policy) const = 0;
  // The table (with its "conf." prefix where it lives in the settings
  // database), the key column and the value column; the framework binds the
  // values itself when it stores a policy, and creates the table as
  // (key TEXT, value INTEGER) when it is missing.
  virtual std::string Table() const = 0;
  virtual std::string KeyColumn() const = 0;
  virtual std::string ValueColumn() const = 0;
  // The value of `policy` when its row is missing.
  virtual std::string MissingRowValue(const std::string& policy) const = 0;
};

// Rows of control_plugin_conf (fsPolicy, fiValue). A missing row reads "0".
class KX_HOST_API ControlPolicyDbRequestGetter : public PolicyDbRequestGetter {
 public:
  ControlPolicyDbRequestGetter();
  ~ControlPolicyDbRequestGetter() override;
  std::string GetRequestReadData(const std::string& policy) const override;
  std::string Table() const override;
  std::string KeyColumn() const override;
  std::string ValueColumn() const override;
  std::string MissingRowValue(const std::string& policy) const override;
};

// Rows of conf.aec_log_conf (fsEvent, fiValue). A missing row reads as the
// audit event's installation default (docs/policies.md says why the host
// knows them).
class KX_HOST_API AecLogPolicyDbRequestGetter : public PolicyDbRequestGetter {
 public:
  AecLogPolicyDbRequestGetter();
  ~AecLogPolicyDbRequestGetter() override;
  std::string GetRequestReadData(const std::string& policy) const override;
  std::string Table() const override;
  std::string KeyColumn() const override;
  std::string ValueColumn() const override;
  std::string MissingRowValue(const std::string& policy) const override;
};
