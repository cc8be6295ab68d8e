#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include <tarvo/platform/Date.h>

#include "platform/foundation/Text.h"

namespace tarvo::platform {

/// Joins a great many short pieces to one long text, in their printed forms. They gather in a buffer of its own, so
/// that a piece costs little more than its characters.
///
/// Threads: a plain value of one thread. Lies on the stack: about 4 KiB.
class TextBuilder {
 public:
  /// `expected` is what the whole text will hold; more is fine.
  explicit TextBuilder(std::size_t expected) { text_.reserve(expected); }
  TextBuilder(const TextBuilder&) = delete;
  TextBuilder& operator=(const TextBuilder&) = delete;

  void add(std::string_view piece) {
    if (piece.size() > room()) makeRoom();
    if (piece.size() > room()) {
      text_.append(piece);
      return;
    }
    std::memcpy(next_, piece.data(), piece.size());
    next_ += piece.size();
  }
  void add(double piece) { addPrinted(piece); }
  void add(std::int64_t piece) { addPrinted(piece); }
  void add(Date piece) { addPrinted(piece); }

  /// Ends the text; once only.
  std::string finished() {
    makeRoom();
    return std::move(text_);
  }

 private:
  template <class T>
  void addPrinted(T piece) {
    if (room() < kLongestPrinted) makeRoom();
    next_ = print(next_, piece);
  }
  std::size_t room() const { return static_cast<std::size_t>(buffer_.data() + buffer_.size() - next_); }
  void makeRoom() {
    text_.append(buffer_.data(), next_);
    next_ = buffer_.data();
  }

  std::string text_;
  std::array<char, 4096> buffer_;
  char* next_ = buffer_.data();
};

}  // namespace tarvo::platform
