#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarvo::platform {

/// A text kept once per process however many records hold it; equal texts have equal addresses.
///
/// Threads: any; records may be dropped on other threads than the one that filled them.
/// Ownership: by hand, each `acquire` or `retain` is paired with a `release`; the last one frees the text.
class InternedText {
 public:
  static const InternedText* acquire(std::string_view text);
  static const InternedText* retain(const InternedText* text) {
    text->references_.fetch_add(1, std::memory_order_relaxed);
    return text;
  }
  static void release(const InternedText* text);
  /// The number of different texts that are held.
  static std::size_t poolSize();

  std::string_view view() const { return text_; }

 private:
  friend struct InternedTextPool;
  explicit InternedText(std::string_view text) : text_(text) {}

  const std::string text_;
  mutable std::atomic<std::uint32_t> references_{1};
};

/// The latest text of each attribute: one that repeats from record to record is not looked up again.
///
/// Threads: one at a time.
class LatestTexts {
 public:
  explicit LatestTexts(std::size_t attributes) : texts_(attributes) {}
  ~LatestTexts();
  LatestTexts(const LatestTexts&) = delete;
  LatestTexts& operator=(const LatestTexts&) = delete;

  /// A reference to the text for an attribute, to be released.
  const InternedText* acquire(std::size_t attribute, std::string_view text);

 private:
  std::vector<const InternedText*> texts_;  ///< null for none
};

}  // namespace tarvo::platform
