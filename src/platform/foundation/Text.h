#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include <tarvo/platform/Date.h>
#include <tarvo/platform/Value.h>

#include "platform/foundation/Error.h"

namespace tarvo::platform {

// The printed forms of the system, one for each type, used by log lines and uploads alike.

/// Fixed notation, the fewest digits that read back as the same value, no ".0"; "nan", "inf", "-inf".
void append(std::string& out, double value);
void append(std::string& out, std::int64_t value);
void append(std::string& out, std::uint64_t value);

/// The same straight into memory that has room for `kLongestPrinted` characters; answers where they end.
char* print(char* out, double value);
char* print(char* out, std::int64_t value);
char* print(char* out, Date value);
/// The longest is the smallest denormal double: sign, "0." and 1074 digits.
inline constexpr std::size_t kLongestPrinted = 1077;

inline void append(std::string& out, std::string_view value) { out.append(value); }
inline void append(std::string& out, const char* value) { out.append(value); }
inline void append(std::string& out, const std::string& value) { out.append(value); }
/// "true" or "false".
inline void append(std::string& out, bool value) { out.append(value ? "true" : "false"); }
/// "2017-03-02 08:15:30 +0000": UTC, calendar year, the fraction cut downwards.
void append(std::string& out, Date value);
/// Texts bare at the top and quoted inside; `["a": 1, "b": [1, 2]]`, `[:]`, `[]`, `<null>`.
void append(std::string& out, const Value& value);
void append(std::string& out, const Dictionary& value);
void append(std::string& out, const Error& value);

template <class T>
requires(std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, std::int64_t> &&
         !std::same_as<T, std::uint64_t> && !std::same_as<T, char>) void append(std::string& out, T value) {
  if constexpr (std::signed_integral<T>)
    append(out, static_cast<std::int64_t>(value));
  else
    append(out, static_cast<std::uint64_t>(value));
}

/// "nil" when absent, else the value itself.
template <class T>
void append(std::string& out, const std::optional<T>& value) {
  if (value)
    append(out, *value);
  else
    out.append("nil");
}

/// A value that is about to be printed, whatever its type: refers to it, and knows how it is printed. So one function
/// serves every combination of parts.
class Piece {
 public:
  Piece(const char* characters) : value_(characters), append_(&text) {}
  template <class T>
  requires(!std::is_array_v<T>) Piece(const T& value) : value_(&value), append_(&typed<T>) {}

  void appendTo(std::string& out) const { append_(out, value_); }

 private:
  static void text(std::string& out, const void* value) { out.append(static_cast<const char*>(value)); }
  template <class T>
  static void typed(std::string& out, const void* value) {
    append(out, *static_cast<const T*>(value));
  }

  const void* value_;
  void (*append_)(std::string& out, const void* value);
};

/// The printed forms one after the other, nothing between them.
std::string concatenated(std::initializer_list<Piece> pieces);
template <class... Parts>
std::string concat(const Parts&... parts) {
  return concatenated({Piece(parts)...});
}

/// The printed form of an optional text: `nil` or `Optional("text")`.
std::string printedOptional(const std::optional<std::string>& text);

/// "Unresolved error " and the like end so: the error, ", " and its user information.
std::string errorAndUserInfo(const Error& error);

}  // namespace tarvo::platform
