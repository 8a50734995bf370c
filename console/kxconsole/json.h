// JSON for the console's API: an escaping writer for replies and a small
// strict reader for request bodies. Boost.PropertyTree turns every number and
// boolean into a string on both sides, which would make `"enabled": "false"`
// and `"enabled": false` the same request; the API needs the types.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kxconsole {

// A quoted JSON string. Bytes that are not well-formed UTF-8 and control
// characters XML cannot carry become U+FFFD (names in the journal are
// anyone's bytes); '<', '>' and '&' are written as \u escapes so that no
// reply ever holds markup, whatever a rule or a program is called.
std::string JsonQuote(const std::string& text);
std::string JsonStringArray(const std::vector<std::string>& items);

// Builds one JSON object, members in the order added.
class JsonObject {
 public:
  JsonObject& Str(const std::string& key, const std::string& value);
  JsonObject& Int(const std::string& key, std::int64_t value);
  JsonObject& Bool(const std::string& key, bool value);
  JsonObject& Strings(const std::string& key,
                      const std::vector<std::string>& values);
  // `json` must already be a JSON value.
  JsonObject& Raw(const std::string& key, const std::string& json);
  std::string str() const { return text_ + "}"; }

 private:
  void Key(const std::string& key);
  std::string text_ = "{";
};

// A request body that is not the JSON the route needs; what() says why.
class JsonError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A parsed JSON value. Numbers are kept only when they are integers.
struct JsonValue {
  enum class Type { kNull, kBool, kNumber, kString, kArray, kObject };
  Type type = Type::kNull;
  bool boolean = false;
  std::int64_t number = 0;
  std::string string;
  std::vector<JsonValue> items;
  std::vector<std::pair<std::string, JsonValue>> members;

  // The member `key` of an object (nullptr when absent).
  const JsonValue* Find(const std::string& key) const;
  // Typed member access; absent members give `fallback`, a member of
  // another type throws JsonError naming the key.
  std::string GetString(const std::string& key,
                        const std::string& fallback = "") const;
  bool GetBool(const std::string& key, bool fallback) const;
  std::int64_t GetInt(const std::string& key, std::int64_t fallback) const;
  std::vector<std::string> GetStrings(const std::string& key) const;
  bool Has(const std::string& key) const { return Find(key) != nullptr; }
};

// Parses `text`: one value, nothing after it but white space, nesting at
// most 32 deep, strings well-formed UTF-8. Throws JsonError.
JsonValue ParseJson(const std::string& text);

}  // namespace kxconsole
