#include "platform/foundation/Json.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "platform/foundation/Encoding.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

constexpr std::size_t kMaxBytes = 64U << 20;
constexpr std::size_t kMaxDepth = 512;
// Tiny values ("[0,0,0") take thirty times their text in memory. Ordinary texts of the full size hold about this many.
constexpr std::size_t kMaxValues = 2U << 20;

Error cocoaError(std::int64_t code, std::string_view text, std::string_view details) {
  return Error{.domain = NSCocoaErrorDomain,
               .code = code,
               .localizedDescription = std::string(text),
               .userInfo = {{"NSDebugDescription", details}}};
}

Error unreadable(std::string_view details) {
  return cocoaError(3840, "The data couldn’t be read because it isn’t in the correct format.", details);
}

/// Builds the value while the parser reads, so that depth and number are checked before the memory is spent.
class Builder final : public nlohmann::json_sax<nlohmann::json> {
 public:
  Value take() { return std::move(root_); }
  const std::string& failure() const { return failure_; }

  bool null() override { return put(nullptr); }
  bool boolean(bool value) override { return put(value); }
  bool number_integer(number_integer_t value) override { return put(std::int64_t{value}); }
  bool number_unsigned(number_unsigned_t value) override {
    if (value > std::uint64_t{std::numeric_limits<std::int64_t>::max()}) return put(static_cast<double>(value));
    return put(static_cast<std::int64_t>(value));
  }
  bool number_float(number_float_t value, const string_t&) override { return put(value); }
  bool string(string_t& value) override { return put(std::move(value)); }
  bool binary(binary_t&) override { return refuse("binary value"); }
  bool key(string_t& value) override {
    key_ = std::move(value);
    return true;
  }
  bool start_object(std::size_t) override { return open(false); }
  bool start_array(std::size_t) override { return open(true); }
  bool end_object() override { return put(close().dictionary); }
  bool end_array() override { return put(close().array); }
  bool parse_error(std::size_t read, const std::string&, const nlohmann::detail::exception& error) override {
    const bool outOfRange = dynamic_cast<const nlohmann::json::out_of_range*>(&error) != nullptr;
    return refuse(concat(outOfRange ? "a number out of range, before byte " : "no valid JSON, at byte ",
                         outOfRange ? read : read - std::min<std::size_t>(read, 1)));
  }

 private:
  /// A container that is still open: one of the two, and its own key in the container around it.
  struct Level {
    bool isArray;
    std::string key;
    Array array;
    Dictionary dictionary;
  };

  bool open(bool isArray) {
    if (levels_.size() == kMaxDepth) return refuse("nested too deep");
    levels_.push_back({.isArray = isArray, .key = std::move(key_)});
    return true;
  }

  Level close() {
    Level level = std::move(levels_.back());
    levels_.pop_back();
    key_ = std::move(level.key);
    return level;
  }

  bool put(Value value) {
    if (++count_ > kMaxValues) return refuse("too many values");
    if (levels_.empty()) {
      root_ = std::move(value);
    } else if (levels_.back().isArray) {
      levels_.back().array.push_back(std::move(value));
    } else {
      levels_.back().dictionary.insert_or_assign(std::move(key_), std::move(value));
    }
    return true;
  }

  bool refuse(std::string why) {
    failure_ = std::move(why);
    return false;
  }

  Value root_;
  std::vector<Level> levels_;
  std::string key_;
  std::string failure_;
  std::size_t count_ = 0;
};

/// Why the value cannot stand inside a JSON text, or a null pointer.
const char* flawOf(const Value& value, std::size_t depth) {
  if (const std::string* text = value.asString()) return isValidUtf8(*text) ? nullptr : "a text that is not UTF-8";
  if (value.asArray() == nullptr && value.asDictionary() == nullptr) {
    const auto number = value.asDouble();
    return number && !std::isfinite(*number) ? "a number that is not finite" : nullptr;
  }
  if (depth == kMaxDepth) return "nested too deep";
  if (const Array* array = value.asArray()) {
    for (const Value& item : *array)
      if (const char* flaw = flawOf(item, depth + 1)) return flaw;
    return nullptr;
  }
  for (const auto& [key, item] : *value.asDictionary()) {
    if (!isValidUtf8(key)) return "a key that is not UTF-8";
    if (const char* flaw = flawOf(item, depth + 1)) return flaw;
  }
  return nullptr;
}

/// Appends compact text of a value without flaw; false once it would be longer than what is read.
bool write(std::string& out, const Value& value);

bool writeText(std::string& out, std::string_view text) {
  // What a text must not hold as it is, and the letters for some of it.
  constexpr std::string_view kNamed = "\"\\\b\f\n\r\t";
  constexpr std::string_view kNames = "\"\\bfnrt";
  constexpr std::string_view kDigits = "0123456789abcdef";
  if (text.size() > kMaxBytes - std::min(out.size(), kMaxBytes)) return false;
  out.push_back('"');
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (const auto named = kNamed.find(c); named != kNamed.npos) {
      out.push_back('\\');
      out.push_back(kNames[named]);
    } else if (byte < 0x20) {
      out.append("\\u00");
      out.push_back(kDigits[byte / 16]);
      out.push_back(kDigits[byte % 16]);
    } else {
      out.push_back(c);
    }
  }
  out.push_back('"');
  return true;
}

bool writeArray(std::string& out, const Array& array) {
  char separator = '[';
  for (const Value& item : array) {
    out.push_back(std::exchange(separator, ','));
    if (!write(out, item)) return false;
  }
  out.append(array.empty() ? "[]" : "]");
  return true;
}

bool writeDictionary(std::string& out, const Dictionary& dictionary) {
  char separator = '{';
  for (const auto& [key, item] : dictionary) {
    out.push_back(std::exchange(separator, ','));
    if (!writeText(out, key)) return false;
    out.push_back(':');
    if (!write(out, item)) return false;
  }
  out.append(dictionary.empty() ? "{}" : "}");
  return true;
}

bool write(std::string& out, const Value& value) {
  if (const std::string* text = value.asString()) return writeText(out, *text);
  if (const Array* array = value.asArray()) return writeArray(out, *array);
  if (const Dictionary* dictionary = value.asDictionary()) return writeDictionary(out, *dictionary);
  out += value.isNull() ? "null" : concat(value);
  return out.size() <= kMaxBytes;
}

/// Why the value is no JSON object, or a null pointer.
const char* flawAtTop(const Value& value) {
  return value.asArray() == nullptr && value.asDictionary() == nullptr ? "no array or dictionary at the top"
                                                                       : flawOf(value, 0);
}

/// The value's text; absent when that would be too large.
std::optional<std::string> written(const Value& value) {
  std::string out;
  if (!write(out, value) || out.size() > kMaxBytes) return std::nullopt;
  return out;
}

}  // namespace

Result<Value> parseJson(std::string_view text) {
  if (text.size() > kMaxBytes) return unreadable("too large");
  Builder builder;
  if (!nlohmann::json::sax_parse(text, &builder)) return unreadable(builder.failure());
  return builder.take();
}

bool isValidJsonObject(const Value& value) { return flawAtTop(value) == nullptr; }

Result<std::string> serializeJson(const Value& value) {
  const char* flaw = flawAtTop(value);
  if (flaw == nullptr) {
    if (auto text = written(value)) return std::move(*text);
    flaw = "too large";
  }
  return cocoaError(3851, "The data couldn’t be written because it isn’t in the correct format.", flaw);
}

std::optional<Value> Value::fromJson(std::string_view json) {
  auto value = parseJson(json);
  return value ? std::optional(std::move(*value)) : std::nullopt;
}

std::optional<std::string> Value::toJson() const { return flawOf(*this, 0) == nullptr ? written(*this) : std::nullopt; }

}  // namespace tarvo::platform
