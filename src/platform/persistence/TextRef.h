#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarvo::platform {

/// Refers to a text that is kept once per process however many records hold it, or to none. Equal texts have equal
/// addresses, so that a comparison costs nothing; the text goes with the last reference to it.
///
/// Threads: any; records may be dropped on other threads than the one that filled them.
class TextRef {
 public:
  TextRef() = default;
  explicit TextRef(std::string_view text);
  TextRef(const TextRef& other) : text_(other.text_) {
    if (text_) text_->references.fetch_add(1, std::memory_order_relaxed);
  }
  TextRef(TextRef&& other) noexcept : text_(std::exchange(other.text_, nullptr)) {}
  TextRef& operator=(TextRef other) noexcept {
    std::swap(text_, other.text_);
    return *this;
  }
  ~TextRef() {
    if (text_) release();
  }

  bool operator==(const TextRef&) const = default;
  explicit operator bool() const { return text_ != nullptr; }
  /// Of a reference to some text.
  std::string_view view() const { return text_->characters; }

  /// The number of different texts that are held.
  static std::size_t poolSize();

 private:
  struct Text {
    explicit Text(std::string_view text) : characters(text) {}
    const std::string characters;
    mutable std::atomic<std::uint32_t> references{0};
  };
  struct Pool;
  void release();

  const Text* text_ = nullptr;
};

/// The latest text of each attribute: one that repeats from record to record is not looked up again.
///
/// Threads: one at a time.
class LatestTexts {
 public:
  explicit LatestTexts(std::size_t attributes) : texts_(attributes) {}

  TextRef get(std::size_t attribute, std::string_view text);

 private:
  std::vector<TextRef> texts_;
};

}  // namespace tarvo::platform
