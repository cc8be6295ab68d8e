#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include <tarvo/platform/Date.h>
#include <tarvo/platform/Value.h>

#include "platform/foundation/Error.h"
#include "platform/foundation/TextBuilder.h"

namespace tarvo::platform {

// The printed forms of the system, one for each type, used by log lines and uploads alike.

/// Fixed notation, the fewest digits that read back as the same value, no ".0"; "nan", "inf", "-inf".
inline void append(TextBuilder& out, double value) { out.add(value); }
inline void append(TextBuilder& out, std::int64_t value) { out.add(value); }
inline void append(TextBuilder& out, std::uint64_t value) { out.add(value); }
inline void append(TextBuilder& out, std::string_view value) { out.add(value); }
inline void append(TextBuilder& out, const char* value) { out.add(std::string_view(value)); }
inline void append(TextBuilder& out, const std::string& value) { out.add(std::string_view(value)); }
/// "true" or "false".
inline void append(TextBuilder& out, bool value) { out.add(std::string_view(value ? "true" : "false")); }
/// "2017-03-02 08:15:30 +0000": UTC, calendar year, the fraction cut downwards.
inline void append(TextBuilder& out, Date value) { out.add(value); }
/// Texts bare at the top and quoted inside; `["a": 1, "b": [1, 2]]`, `[:]`, `[]`, `<null>`.
void append(TextBuilder& out, const Value& value);
void append(TextBuilder& out, const Dictionary& value);
void append(TextBuilder& out, const Error& value);

template <class T>
requires(std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, std::int64_t> &&
         !std::same_as<T, std::uint64_t> && !std::same_as<T, char>) void append(TextBuilder& out, T value) {
  if constexpr (std::signed_integral<T>)
    append(out, static_cast<std::int64_t>(value));
  else
    append(out, static_cast<std::uint64_t>(value));
}

/// "nil" when absent, else the value itself.
template <class T>
void append(TextBuilder& out, const std::optional<T>& value) {
  if (value)
    append(out, *value);
  else
    out.add(std::string_view("nil"));
}

/// A value that is about to be printed, whatever its type: refers to it, and knows how it is printed. So one function
/// serves every combination of parts.
class Piece {
 public:
  Piece(const char* characters) : value_(characters), append_(&text) {}
  template <class T>
  requires(!std::is_array_v<T>) Piece(const T& value) : value_(&value), append_(&typed<T>) {}

  void appendTo(TextBuilder& out) const { append_(out, value_); }

 private:
  static void text(TextBuilder& out, const void* value) { append(out, static_cast<const char*>(value)); }
  template <class T>
  static void typed(TextBuilder& out, const void* value) {
    append(out, *static_cast<const T*>(value));
  }

  const void* value_;
  void (*append_)(TextBuilder& out, const void* value);
};

// The printed forms one after the other, nothing between them.

void appendPieces(TextBuilder& out, std::initializer_list<Piece> pieces);
template <class... Parts>
void appendAll(TextBuilder& out, const Parts&... parts) {
  appendPieces(out, {Piece(parts)...});
}
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
