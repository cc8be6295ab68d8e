#pragma once

#include <charconv>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

namespace tarvo::bench {

/// One buffer that texts are written into, made once; nothing checks its end, so its size must be an upper bound.
class TextBuffer {
 public:
  explicit TextBuffer(std::size_t size)
      : bytes_(std::make_unique_for_overwrite<char[]>(size)), end_(bytes_.get() + size) {}

  void clear() { next_ = bytes_.get(); }
  std::string_view view() const { return {bytes_.get(), static_cast<std::size_t>(next_ - bytes_.get())}; }
  void takeBack(std::size_t bytes) { next_ -= bytes; }

  void add(std::string_view text) {
    std::memcpy(next_, text.data(), text.size());
    next_ += text.size();
  }
  void add(double value) { next_ = std::to_chars(next_, end_, value, std::chars_format::fixed).ptr; }
  void add(std::int64_t value) { next_ = std::to_chars(next_, end_, value).ptr; }
  void addTwoDigits(unsigned value) {
    *next_++ = static_cast<char>('0' + value / 10);
    *next_++ = static_cast<char>('0' + value % 10);
  }
  /// "2024-06-15 10:00:00 +0000" of seconds since 1970.
  void addDate(double seconds);

 private:
  std::unique_ptr<char[]> bytes_;
  char* end_;
  char* next_ = bytes_.get();
};

}  // namespace tarvo::bench
