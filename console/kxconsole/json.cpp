#include "json.h"


#include "host/json_text.h"
#include "host/utf8_text.h"

namespace kxconsole {

std::string JsonQuote(const std::string& raw) {
  kxtext::JsonStringStyle style;
  style.short_backspace_formfeed = false;
  style.escape_markup = true;
  std::string out;
  kxtext::AppendJsonString(kxtext::ToXmlText(raw), &out, style);
  return out;
}

std::string JsonStringArray(const std::vector<std::string>& items) {
  std::string out = "[";
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i > 0) out += ",";
    out += JsonQuote(items[i]);
  }
  return out + "]";
}

void JsonObject::Key(const std::string& key) {
  if (text_.size() > 1) text_ += ",";
  text_ += JsonQuote(key) + ":";
}

JsonObject& JsonObject::Str(const std::string& key, const std::string& value) {
  Key(key);
  text_ += JsonQuote(value);
  return *this;
}

JsonObject& JsonObject::Int(const std::string& key, std::int64_t value) {
  Key(key);
  text_ += std::to_string(value);
  return *this;
}

JsonObject& JsonObject::Bool(const std::string& key, bool value) {
  Key(key);
  text_ += value ? "true" : "false";
  return *this;
}

JsonObject& JsonObject::Strings(const std::string& key,
                                const std::vector<std::string>& values) {
  Key(key);
  text_ += JsonStringArray(values);
  return *this;
}

JsonObject& JsonObject::Raw(const std::string& key, const std::string& json) {
  Key(key);
  text_ += json;
  return *this;
}

const JsonValue* JsonValue::Find(const std::string& key) const {
  for (const auto& member : members) {
    if (member.first == key) return &member.second;
  }
  return nullptr;
}

namespace {

const JsonValue* Typed(const JsonValue& object, const std::string& key,
                       JsonValue::Type type, const char* what) {
  const JsonValue* value = object.Find(key);
  if (value != nullptr && value->type != type) {
    throw JsonError("\"" + key + "\" must be " + what);
  }
  return value;
}

class Parser {
 public:
  explicit Parser(const std::string& text) : text_(text) {}

  JsonValue Document() {
    JsonValue value = Value(0);
    Space();
    if (at_ != text_.size()) Fail("text after the value");
    return value;
  }

 private:
  static constexpr int kMaxDepth = 32;

  [[noreturn]] void Fail(const std::string& why) const {
    throw JsonError("malformed JSON at byte " + std::to_string(at_) + ": " +
                    why);
  }

  void Space() {
    while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\t' ||
                                  text_[at_] == '\n' || text_[at_] == '\r')) {
      ++at_;
    }
  }

  bool Take(const char* word) {
    const std::string w(word);
    if (text_.compare(at_, w.size(), w) != 0) return false;
    at_ += w.size();
    return true;
  }

  JsonValue Value(int depth) {
    if (depth > kMaxDepth) Fail("nested too deeply");
    Space();
    if (at_ >= text_.size()) Fail("unexpected end");
    JsonValue value;
    const char c = text_[at_];
    if (c == '{') {
      value.type = JsonValue::Type::kObject;
      ++at_;
      Space();
      if (at_ < text_.size() && text_[at_] == '}') {
        ++at_;
        return value;
      }
      for (;;) {
        Space();
        if (at_ >= text_.size() || text_[at_] != '"') Fail("expected a key");
        std::string key = String();
        Space();
        if (at_ >= text_.size() || text_[at_] != ':') Fail("expected ':'");
        ++at_;
        value.members.emplace_back(std::move(key), Value(depth + 1));
        Space();
        if (at_ < text_.size() && text_[at_] == ',') {
          ++at_;
          continue;
        }
        if (at_ < text_.size() && text_[at_] == '}') {
          ++at_;
          return value;
        }
        Fail("expected ',' or '}'");
      }
    }
    if (c == '[') {
      value.type = JsonValue::Type::kArray;
      ++at_;
      Space();
      if (at_ < text_.size() && text_[at_] == ']') {
        ++at_;
        return value;
      }
      for (;;) {
        value.items.push_back(Value(depth + 1));
        Space();
        if (at_ < text_.size() && text_[at_] == ',') {
          ++at_;
          continue;
        }
        if (at_ < text_.size() && text_[at_] == ']') {
          ++at_;
          return value;
        }
        Fail("expected ',' or ']'");
      }
    }
    if (c == '"') {
      value.type = JsonValue::Type::kString;
      value.string = String();
      return value;
    }
    if (Take("true")) {
      value.type = JsonValue::Type::kBool;
      value.boolean = true;
      return value;
    }
    if (Take("false")) {
      value.type = JsonValue::Type::kBool;
      return value;
    }
    if (Take("null")) return value;
    if (c == '-' || (c >= '0' && c <= '9')) return Number();
    Fail("unexpected character");
  }

  JsonValue Number() {
    const std::size_t start = at_;
    if (text_[at_] == '-') ++at_;
    const std::size_t digits = at_;
    while (at_ < text_.size() && text_[at_] >= '0' && text_[at_] <= '9') ++at_;
    if (at_ == digits) Fail("a number needs digits");
    if (at_ < text_.size() &&
        (text_[at_] == '.' || text_[at_] == 'e' || text_[at_] == 'E')) {
      Fail("only whole numbers are taken");
    }
    if (at_ - digits > 1 && text_[digits] == '0') Fail("leading zero");
    if (at_ - digits > 18) Fail("number too large");
    JsonValue value;
    value.type = JsonValue::Type::kNumber;
    value.number = std::stoll(text_.substr(start, at_ - start));
    return value;
  }

  void Utf8(unsigned code, std::string* out) {
    if (code < 0x80) {
      *out += static_cast<char>(code);
    } else if (code < 0x800) {
      *out += static_cast<char>(0xC0 | (code >> 6));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
      *out += static_cast<char>(0xE0 | (code >> 12));
      *out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      *out += static_cast<char>(0xF0 | (code >> 18));
      *out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
      *out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    }
  }

  unsigned Hex4() {
    if (at_ + 4 > text_.size()) Fail("short \\u escape");
    unsigned code = 0;
    for (int i = 0; i < 4; ++i) {
      const char h = text_[at_++];
      code <<= 4;
      if (h >= '0' && h <= '9')
        code |= h - '0';
      else if (h >= 'a' && h <= 'f')
        code |= h - 'a' + 10;
      else if (h >= 'A' && h <= 'F')
        code |= h - 'A' + 10;
      else
        Fail("bad \\u escape");
    }
    return code;
  }

  std::string String() {
    ++at_;  // the opening quote
    std::string out;
    for (;;) {
      if (at_ >= text_.size()) Fail("unterminated string");
      const char c = text_[at_++];
      if (c == '"') break;
      if (static_cast<unsigned char>(c) < 0x20) Fail("control character");
      if (c != '\\') {
        out += c;
        continue;
      }
      if (at_ >= text_.size()) Fail("unterminated escape");
      const char e = text_[at_++];
      switch (e) {
        case '"':
          out += '"';
          break;
        case '\\':
          out += '\\';
          break;
        case '/':
          out += '/';
          break;
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'n':
          out += '\n';
          break;
        case 'r':
          out += '\r';
          break;
        case 't':
          out += '\t';
          break;
        case 'u': {
          unsigned code = Hex4();
          if (code >= 0xD800 && code < 0xDC00) {
            if (!Take("\\u")) Fail("lone surrogate");
            const unsigned low = Hex4();
            if (low < 0xDC00 || low > 0xDFFF) Fail("lone surrogate");
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
          } else if (code >= 0xDC00 && code < 0xE000) {
            Fail("lone surrogate");
          }
          if (code == 0) Fail("NUL character");
          Utf8(code, &out);
          break;
        }
        default:
          Fail("unknown escape");
      }
    }
    if (kxtext::ToXmlText(out) != out) Fail("string is not UTF-8 text");
    return out;
  }

  const std::string& text_;
  std::size_t at_ = 0;
};

}  // namespace

std::string JsonValue::GetString(const std::string& key,
                                 const std::string& fallback) const {
  const JsonValue* v = Typed(*this, key, Type::kString, "a string");
  return v ? v->string : fallback;
}

bool JsonValue::GetBool(const std::string& key, bool fallback) const {
  const JsonValue* v = Typed(*this, key, Type::kBool, "true or false");
  return v ? v->boolean : fallback;
}

std::int64_t JsonValue::GetInt(const std::string& key,
                               std::int64_t fallback) const {
  const JsonValue* v = Typed(*this, key, Type::kNumber, "a whole number");
  return v ? v->number : fallback;
}

std::vector<std::string> JsonValue::GetStrings(const std::string& key) const {
  const JsonValue* v = Typed(*this, key, Type::kArray, "a list of strings");
  std::vector<std::string> out;
  if (v == nullptr) return out;
  for (const auto& item : v->items) {
    if (item.type != Type::kString) {
      throw JsonError("\"" + key + "\" must be a list of strings");
    }
    out.push_back(item.string);
  }
  return out;
}

JsonValue ParseJson(const std::string& text) { return Parser(text).Document(); }

}  // namespace kxconsole
