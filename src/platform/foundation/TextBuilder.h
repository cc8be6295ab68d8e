#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include <tarvo/platform/Date.h>

namespace tarvo::platform {

/// The printed forms of Text.h straight into memory that has room for `kLongestPrinted` characters; answers where they
/// end.
char* print(char* out, double value);
char* print(char* out, std::int64_t value);
char* print(char* out, std::uint64_t value);
char* print(char* out, Date value);
/// The longest is the smallest denormal double: sign, "0." and 1074 digits.
inline constexpr std::size_t kLongestPrinted = 1077;

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

  void add(std::string_view piece) {
    if (piece.size() > room()) return addToText(piece);
    std::memcpy(next_, piece.data(), piece.size());
    next_ += piece.size();
  }
  void add(char piece) { add(std::string_view(&piece, 1)); }
  void add(double piece) { addPrinted(piece); }
  void add(std::int64_t piece) { addPrinted(piece); }
  void add(std::uint64_t piece) { addPrinted(piece); }
  void add(Date piece) { addPrinted(piece); }

  /// The text so far; until the next piece.
  std::string_view view() {
    if (text_.empty()) return {buffer_.data(), next_};
    makeRoom();
    return text_;
  }
  /// Ends the text; once only.
  std::string finished();

 private:
  template <class T>
  void addPrinted(T piece) {
    if (room() < kLongestPrinted) makeRoom();
    next_ = print(next_, piece);
  }
  std::size_t room() const { return static_cast<std::size_t>(buffer_.data() + buffer_.size() - next_); }
  [[gnu::cold]] void makeRoom();
  [[gnu::cold]] void addToText(std::string_view piece);

  std::string text_;
  std::array<char, 4096> buffer_;
  char* next_ = buffer_.data();
};

}  // namespace tarvo::platform
