#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/Export.h"

namespace platform {

// One JSON value (RFC 8259), a plain value. Objects keep the order in which members were first set.
// Reading never throws on wrong types: the accessors give nullopt or an empty view.
class QN_EXPORT JSON {
 public:
  using Array = std::vector<JSON>;
  using Member = std::pair<std::string, JSON>;
  using Object = std::vector<Member>;

  JSON() = default;  // null
  JSON(std::nullptr_t) {}
  JSON(bool value) : value_(value) {}
  JSON(int value) : value_(int64_t{value}) {}
  JSON(int64_t value) : value_(value) {}
  JSON(uint64_t value);
  JSON(unsigned value) : value_(int64_t{value}) {}
  JSON(double value) : value_(value) {}
  JSON(const char* value) : value_(std::string(value)) {}
  JSON(std::string value) : value_(std::move(value)) {}
  JSON(std::string_view value) : value_(std::string(value)) {}
  JSON(Array value) : value_(std::move(value)) {}
  static JSON object() { return fromObject({}); }
  static JSON array() { return JSON(Array{}); }
  static JSON fromObject(Object members);

  bool isNull() const { return std::holds_alternative<std::monostate>(value_); }
  bool isObject() const { return std::holds_alternative<Object>(value_); }
  bool isArray() const { return std::holds_alternative<Array>(value_); }
  bool isString() const { return std::holds_alternative<std::string>(value_); }
  bool isFractional() const { return std::holds_alternative<double>(value_); }  // 5.0 is, 5 is not

  std::optional<std::string> string() const;
  std::optional<bool> boolean() const;
  // Numbers that are whole and in range; a negative number is no unsigned one.
  std::optional<int64_t> integer() const;
  std::optional<uint64_t> unsignedInteger() const;
  std::optional<double> number() const;
  const Array& items() const;     // empty unless an array
  const Object& members() const;  // empty unless an object

  const JSON* find(
      std::string_view key) const;  // null when absent or no object; valid until the object changes
  // Makes this an object when it is none; the first position of a name is kept. A walk over the
  // members: whoever builds a large object collects the members and calls `fromObject` (of a
  // repeated name it keeps the last value).
  void set(std::string key, JSON value);
  void remove(std::string_view key);
  void append(JSON value);  // makes this an array when it is none

  // Members compare in order; 5 and 5.0 differ.
  bool operator==(const JSON&) const;

  // Text in UTF-8; a byte-order mark is accepted. At most 512 levels. nullopt with a message
  // (offset and what was expected) when it is not one JSON value.
  static std::optional<JSON> parse(std::string_view text, std::string* message = nullptr);
  // Compact when `indent` < 0; numbers that JSON cannot express are null. Invalid UTF-8 is replaced
  // by U+FFFD, never an exception; "/" is not escaped.
  std::string dump(int indent = -1) const;
  // Appends what dump() gives of this text as a string.
  static void appendQuoted(std::string& out, std::string_view text);

 private:
  std::variant<std::monostate, bool, int64_t, uint64_t, double, std::string, Array, Object> value_;
};

}  // namespace platform
