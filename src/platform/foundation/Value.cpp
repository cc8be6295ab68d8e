#include <tarvo/platform/Value.h>

#include <cmath>

namespace tarvo::platform {

bool Value::isNumber() const {
  return std::holds_alternative<std::int64_t>(data_) || std::holds_alternative<double>(data_);
}

std::optional<bool> Value::asBool() const {
  if (const bool* value = std::get_if<bool>(&data_)) return *value;
  return std::nullopt;
}

std::optional<std::int64_t> Value::asInteger() const {
  if (const auto* integer = std::get_if<std::int64_t>(&data_)) return *integer;
  if (const double* number = std::get_if<double>(&data_)) {
    // 2^63 itself is out of range; the comparison is false for a NaN.
    if (*number >= -0x1p63 && *number < 0x1p63 && std::trunc(*number) == *number)
      return static_cast<std::int64_t>(*number);
  }
  return std::nullopt;
}

std::optional<double> Value::asDouble() const {
  if (const auto* integer = std::get_if<std::int64_t>(&data_)) return static_cast<double>(*integer);
  if (const double* number = std::get_if<double>(&data_)) return *number;
  return std::nullopt;
}

const Value* find(const Dictionary& dictionary, std::string_view key) {
  auto found = dictionary.find(key);
  return found == dictionary.end() ? nullptr : &found->second;
}

std::optional<std::string> findString(const Dictionary& dictionary, std::string_view key) {
  const Value* value = find(dictionary, key);
  if (value == nullptr || value->asString() == nullptr) return std::nullopt;
  return *value->asString();
}

std::optional<std::int64_t> findInteger(const Dictionary& dictionary, std::string_view key) {
  const Value* value = find(dictionary, key);
  return value == nullptr ? std::nullopt : value->asInteger();
}

std::optional<double> findNumber(const Dictionary& dictionary, std::string_view key) {
  const Value* value = find(dictionary, key);
  return value == nullptr ? std::nullopt : value->asDouble();
}

}  // namespace tarvo::platform
