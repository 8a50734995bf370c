// The hostile values every command and policy is fed with.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace hostile {

struct HostileValue {
  const char* label;  // a test name: letters, digits, underscores
  std::string text;   // may hold "@M@" (a marker file a payload would make)
                      // and "@D@" (a watched directory outside the root)
};

// gtest shows a value by its label, not by its raw bytes.
void PrintTo(const HostileValue& value, std::ostream* out);

// At least 50 values: shell metacharacters and quoting, line breaks, NUL
// bytes, "../" and absolute paths, option-like words, very long values,
// invalid UTF-8, SQL fragments, XML- and JSON-special text, format strings.
const std::vector<HostileValue>& HostileValues();

}  // namespace hostile
