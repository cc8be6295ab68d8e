/// @file
/// What JSON texts and property lists hold.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <tarvo/Export.h>

namespace tarvo::platform {

class Value;
using Array = std::vector<Value>;                              ///< a list of values of any kind
using Dictionary = std::map<std::string, Value, std::less<>>;  ///< values by their keys, ascending

/// What JSON texts and property lists hold: null, Boolean, integer, double, text, array or dictionary.
///
/// A plain value: copies are independent. A Boolean is never a number and null is not "absent".
/// Threads: as a std::string (concurrent reads only).
class TARVO_API Value {
 public:
  /**@{*/
  /// Null.
  Value() = default;
  Value(std::nullptr_t) {}
  /**@}*/
  /// A Boolean.
  Value(bool value) : data_(value) {}
  /// Any integer; one beyond 64 bits with a sign becomes a double.
  template <std::integral T>
  Value(T value) {
    if (std::is_signed_v<T> || static_cast<std::uint64_t>(value) <= std::numeric_limits<std::int64_t>::max())
      data_ = static_cast<std::int64_t>(value);
    else
      data_ = static_cast<double>(value);
  }
  /// A double, also one that is not finite, which no JSON text can hold.
  Value(double value) : data_(value) {}
  Value(const void*) = delete;  ///< else any pointer would be true
  /**@{*/
  /// A text, array or dictionary of its own.
  Value(const char* value) : data_(std::string(value)) {}
  Value(std::string value) : data_(std::move(value)) {}
  Value(std::string_view value) : data_(std::string(value)) {}
  Value(Array value) : data_(std::move(value)) {}
  Value(Dictionary value) : data_(std::move(value)) {}
  /**@}*/

  /// Whether it is null, which is a value too.
  bool isNull() const { return std::holds_alternative<std::nullptr_t>(data_); }
  /// Whether it is an integer or a double.
  bool isNumber() const;

  /// The content when it is of just that type, else absent.
  std::optional<bool> asBool() const;
  /// An integer, or a double with an integral value inside the range of 64 bits.
  std::optional<std::int64_t> asInteger() const;
  /// An integer or a double.
  std::optional<double> asDouble() const;
  /**@{*/
  /// The content, owned by this value, when it is of just that type, else a null pointer.
  const std::string* asString() const { return std::get_if<std::string>(&data_); }
  const Array* asArray() const { return std::get_if<Array>(&data_); }
  const Dictionary* asDictionary() const { return std::get_if<Dictionary>(&data_); }
  /**@}*/
  /**@{*/
  /// To take the content out of a value that is not needed any more.
  Array* asArray() { return std::get_if<Array>(&data_); }
  Dictionary* asDictionary() { return std::get_if<Dictionary>(&data_); }
  /**@}*/

  /// The value of a JSON text, bare values at the top included. Of equal keys the last wins; a whole number beyond 64
  /// bits becomes a double. Absent for what is no JSON in UTF-8, and for texts over 64 MiB, over 2,097,152 values or
  /// nested deeper than 512.
  static std::optional<Value> fromJson(std::string_view json);
  /// Compact JSON: keys ascending, doubles in the fewest digits, without ".0". Absent where a text is not UTF-8 or a
  /// number not finite, and for what `fromJson` would refuse as too deep or too large.
  std::optional<std::string> toJson() const;

  bool operator==(const Value&) const = default;  ///< whether kind and content are the same: 1 is not 1.0

 private:
  std::variant<std::nullptr_t, bool, std::int64_t, double, std::string, Array, Dictionary> data_ = nullptr;
};

/// The value under `key`, or a null pointer when the key is absent.
TARVO_API const Value* find(const Dictionary& dictionary, std::string_view key);

/**@{*/
/// The text, integer or number under `key` (as `asString`, `asInteger` and `asDouble` tell); absent when the key is
/// absent or holds something else.
TARVO_API std::optional<std::string> findString(const Dictionary& dictionary, std::string_view key);
TARVO_API std::optional<std::int64_t> findInteger(const Dictionary& dictionary, std::string_view key);
TARVO_API std::optional<double> findNumber(const Dictionary& dictionary, std::string_view key);
/**@}*/

}  // namespace tarvo::platform
