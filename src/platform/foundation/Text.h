#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include <tarvo/platform/Date.h>
#include <tarvo/platform/Value.h>

#include "platform/foundation/Error.h"

namespace tarvo::platform {

/// Joins short pieces to one text, in their printed forms. They gather in a buffer of its own, so that a piece costs
/// little more than its characters, and a text of some thousand characters no allocation.
///
/// Threads: a plain value of one thread. Lies on the stack: about 4 KiB.
class TextBuilder {
 public:
  TextBuilder() = default;
  /// `expected` is what the whole text will hold; more is fine.
  explicit TextBuilder(std::size_t expected) { text_.reserve(expected); }
  TextBuilder(const TextBuilder&) = delete;
  TextBuilder& operator=(const TextBuilder&) = delete;

  void append(std::string_view piece) {
    if (piece.size() > room()) return appendToText(piece);
    std::memcpy(next_, piece.data(), piece.size());
    next_ += piece.size();
  }
  void append(char piece) { append(std::string_view(&piece, 1)); }
  /// Fixed notation, the fewest digits that read back as the same value, no ".0"; "nan", "inf", "-inf".
  void append(double piece) { appendPrinted(piece); }
  void append(std::int64_t piece) { appendPrinted(piece); }
  void append(std::uint64_t piece) { appendPrinted(piece); }
  /// "2017-03-02 08:15:30 +0000": UTC, calendar year, the fraction cut downwards.
  void append(Date piece) { appendPrinted(piece); }

  /// The text so far; until the next piece.
  std::string_view view() {
    if (text_.empty()) return {buffer_.data(), next_};
    makeRoom();
    return text_;
  }
  /// Ends the text; once only.
  std::string finished();

 private:
  /// The longest is the smallest denormal double: sign, "0." and 1074 digits.
  static constexpr std::size_t kLongestPrinted = 1077;
  // The printed form into memory that has room for the longest; each answers where it ends.
  static char* print(char* out, double value);
  static char* print(char* out, std::int64_t value);
  static char* print(char* out, std::uint64_t value);
  static char* print(char* out, Date value);

  template <class T>
  void appendPrinted(T piece) {
    if (room() < kLongestPrinted) makeRoom();
    next_ = print(next_, piece);
  }
  std::size_t room() const { return static_cast<std::size_t>(buffer_.data() + buffer_.size() - next_); }
  [[gnu::cold]] void makeRoom();
  [[gnu::cold]] void appendToText(std::string_view piece);

  std::string text_;
  std::array<char, 4096> buffer_;
  char* next_ = buffer_.data();
};

// The printed forms of the system, one for each type, used by log lines and uploads alike: an `append` of its own makes
// a type printable.

inline void append(TextBuilder& out, double value) { out.append(value); }
inline void append(TextBuilder& out, std::int64_t value) { out.append(value); }
inline void append(TextBuilder& out, std::uint64_t value) { out.append(value); }
inline void append(TextBuilder& out, std::string_view value) { out.append(value); }
inline void append(TextBuilder& out, const char* value) { out.append(std::string_view(value)); }
inline void append(TextBuilder& out, const std::string& value) { out.append(std::string_view(value)); }
/// "true" or "false".
inline void append(TextBuilder& out, bool value) { out.append(std::string_view(value ? "true" : "false")); }
inline void append(TextBuilder& out, Date value) { out.append(value); }
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
    out.append(std::string_view("nil"));
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

void append(TextBuilder& out, std::initializer_list<Piece> pieces);
template <class First, class Second, class... More>
void append(TextBuilder& out, const First& first, const Second& second, const More&... more) {
  append(out, {Piece(first), Piece(second), Piece(more)...});
}

std::string concat(std::initializer_list<Piece> pieces);
template <class... Parts>
std::string concat(const Parts&... parts) {
  return concat({Piece(parts)...});
}

/// The printed form of an optional text: `nil` or `Optional("text")`.
std::string printedOptional(const std::optional<std::string>& text);

/// "Unresolved error " and the like end so: the error, ", " and its user information.
std::string errorAndUserInfo(const Error& error);

}  // namespace tarvo::platform
