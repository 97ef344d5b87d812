#include "platform/JSON.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <unordered_map>

#include <nlohmann/json.hpp>

namespace platform {
namespace {

using Document = nlohmann::ordered_json;

constexpr size_t kMaximumDepth = 512;
constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kTwoTo64 = 18446744073709551616.0;

// Duplicate names: the first position and the last value, as `set` would have it, without its walk
// per member.
void foldDuplicates(JSON::Object& members) {
  std::unordered_map<std::string, size_t> positions;
  size_t kept = 0;
  for (size_t i = 0; i < members.size(); ++i) {
    const auto [known, isNew] = positions.emplace(members[i].first, kept);
    if (!isNew) {
      members[known->second].second = std::move(members[i].second);
    } else {
      if (kept != i) members[kept] = std::move(members[i]);
      ++kept;
    }
  }
  members.erase(members.begin() + static_cast<std::ptrdiff_t>(kept), members.end());
}

std::string withoutTag(
    const std::string& text) {  // "[json.exception.parse_error.101] parse error ..."
  const size_t end = text.find("] ");
  return text.starts_with('[') && end != std::string::npos ? text.substr(end + 2) : text;
}

// Builds the value from the parser's events. A callback that returns false ends the parsing.
class Builder {
 public:
  bool null() { return add(JSON()); }
  bool boolean(bool value) { return add(JSON(value)); }
  bool number_integer(int64_t value) { return add(JSON(value)); }
  bool number_unsigned(uint64_t value) { return add(JSON(value)); }
  bool number_float(double value, const std::string&) { return add(JSON(value)); }
  bool string(std::string& value) { return add(JSON(std::move(value))); }
  bool binary(nlohmann::json::binary_t&) { return false; }

  bool start_object(size_t) { return open(true); }
  bool start_array(size_t) { return open(false); }
  bool key(std::string& name) {
    levels_.back().key = std::move(name);
    return true;
  }
  bool end_object() {
    foldDuplicates(levels_.back().members);
    return close(JSON::fromObject(std::move(levels_.back().members)));
  }
  bool end_array() { return close(JSON(std::move(levels_.back().items))); }

  bool parse_error(size_t position, const std::string&,
                   const nlohmann::detail::exception& failure) {
    message_ = "offset " + std::to_string(position) + ": " + withoutTag(failure.what());
    return false;
  }

  JSON result;
  const std::string& message() const { return message_; }

 private:
  struct Level {
    bool isObject = false;
    std::string key;
    JSON::Object members;
    JSON::Array items;
  };

  bool open(bool isObject) {
    if (levels_.size() == kMaximumDepth) {
      message_ = "more than " + std::to_string(kMaximumDepth) + " levels";
      return false;
    }
    levels_.emplace_back().isObject = isObject;
    return true;
  }
  bool close(JSON value) {
    levels_.pop_back();
    return add(std::move(value));
  }
  bool add(JSON value) {
    if (levels_.empty()) {
      result = std::move(value);
    } else if (levels_.back().isObject) {
      levels_.back().members.emplace_back(std::move(levels_.back().key), std::move(value));
    } else {
      levels_.back().items.push_back(std::move(value));
    }
    return true;
  }

  std::vector<Level> levels_;
  std::string message_;
};

Document documentOf(const JSON& value);

Document documentOfObject(const JSON::Object& members) {
  Document document = Document::object();
  auto& object = document.get_ref<Document::object_t&>();
  object.reserve(members.size());
  // Appended as they stand: the names are unique here, a look-up for each would be a walk.
  using Pairs = Document::object_t::Container;
  for (const auto& [name, value] : members) {
    static_cast<Pairs&>(object).emplace_back(name, documentOf(value));
  }
  return document;
}

Document documentOfArray(const JSON::Array& items) {
  Document document = Document::array();
  for (const auto& item : items)
    document.push_back(documentOf(item));
  return document;
}

Document documentOf(const JSON& value) {
  if (value.isObject()) return documentOfObject(value.members());
  if (value.isArray()) return documentOfArray(value.items());
  if (value.isString()) return *value.string();
  if (const auto flag = value.boolean()) return *flag;
  if (value.isNull()) return nullptr;
  if (value.isFractional()) return *value.number();
  if (const auto number = value.integer()) return *number;
  return *value.unsignedInteger();
}

template <class Object>
auto findMember(Object& members, std::string_view key) {
  return std::find_if(members.begin(), members.end(),
                      [key](const JSON::Member& member) { return member.first == key; });
}

}  // namespace

JSON::JSON(uint64_t value) {
  if (value <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
    value_ = static_cast<int64_t>(value);
  } else {
    value_ = value;
  }
}

JSON JSON::fromObject(Object members) {
  JSON value;
  foldDuplicates(members);
  value.value_ = std::move(members);
  return value;
}

std::optional<std::string> JSON::string() const {
  const auto* text = std::get_if<std::string>(&value_);
  return text ? std::optional(*text) : std::nullopt;
}

std::optional<bool> JSON::boolean() const {
  const auto* flag = std::get_if<bool>(&value_);
  return flag ? std::optional(*flag) : std::nullopt;
}

std::optional<int64_t> JSON::integer() const {
  if (const auto* number = std::get_if<int64_t>(&value_)) return *number;
  const auto* number = std::get_if<double>(&value_);
  const bool fits = number && *number >= -kTwoTo63 && *number < kTwoTo63;
  if (!fits || std::trunc(*number) != *number) return std::nullopt;
  return static_cast<int64_t>(*number);
}

std::optional<uint64_t> JSON::unsignedInteger() const {
  if (const auto* number = std::get_if<uint64_t>(&value_)) return *number;
  if (const auto* number = std::get_if<int64_t>(&value_)) {
    return *number >= 0 ? std::optional(static_cast<uint64_t>(*number)) : std::nullopt;
  }
  const auto* number = std::get_if<double>(&value_);
  const bool fits = number && *number >= 0 && *number < kTwoTo64;
  if (!fits || std::trunc(*number) != *number) return std::nullopt;
  return static_cast<uint64_t>(*number);
}

std::optional<double> JSON::number() const {
  if (const auto* number = std::get_if<double>(&value_)) return *number;
  if (const auto* number = std::get_if<int64_t>(&value_)) return static_cast<double>(*number);
  if (const auto* number = std::get_if<uint64_t>(&value_)) return static_cast<double>(*number);
  return std::nullopt;
}

const JSON::Array& JSON::items() const {
  static const auto* const none = new Array;
  const auto* items = std::get_if<Array>(&value_);
  return items ? *items : *none;
}

const JSON::Object& JSON::members() const {
  static const auto* const none = new Object;
  const auto* members = std::get_if<Object>(&value_);
  return members ? *members : *none;
}

const JSON* JSON::find(std::string_view key) const {
  const auto found = findMember(members(), key);
  return found == members().end() ? nullptr : &found->second;
}

void JSON::set(std::string key, JSON value) {
  if (!isObject()) value_ = Object();
  auto& members = std::get<Object>(value_);
  const auto found = findMember(members, key);
  if (found != members.end()) {
    found->second = std::move(value);
  } else {
    members.emplace_back(std::move(key), std::move(value));
  }
}

void JSON::remove(std::string_view key) {
  auto* members = std::get_if<Object>(&value_);
  if (!members) return;
  const auto found = findMember(*members, key);
  if (found != members->end()) members->erase(found);
}

void JSON::append(JSON value) {
  if (!isArray()) value_ = Array();
  std::get<Array>(value_).push_back(std::move(value));
}

bool JSON::operator==(const JSON& other) const {
  return value_ == other.value_;
}

std::optional<JSON> JSON::parse(std::string_view text, std::string* message) {
  // Raw NUL stands nowhere in JSON, and the parser would take it for the end of the text.
  if (const size_t nul = text.find('\0'); nul != std::string_view::npos) {
    if (message) *message = "offset " + std::to_string(nul) + ": NUL character";
    return std::nullopt;
  }
  Builder builder;
  if (nlohmann::json::sax_parse(text.begin(), text.end(), &builder)) {
    return std::move(builder.result);
  }
  if (message) *message = builder.message();
  return std::nullopt;
}

void JSON::appendQuoted(std::string& out, std::string_view text) {
  const auto isPlain = [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; };
  if (!std::all_of(text.begin(), text.end(), isPlain)) {
    out += JSON(std::string(text)).dump();
    return;
  }
  out += '"';
  out += text;
  out += '"';
}

std::string JSON::dump(int indent) const {
  return documentOf(*this).dump(indent, ' ', false, Document::error_handler_t::replace);
}

}  // namespace platform
