#pragma once

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/platform/SystemLog.h>

namespace tarvo::test {

/// Keeps every message of the system log from its construction on; one for a process, never destroyed, since threads
/// of the library may log until the end.
class LogDiary {
 public:
  static LogDiary& installed() {
    static auto* diary = new LogDiary;
    return *diary;
  }

  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  /// How many messages contain the text.
  std::size_t count(std::string_view text) const {
    const auto contains = [text](const std::string& line) { return line.find(text) != line.npos; };
    return static_cast<std::size_t>(std::ranges::count_if(lines(), contains));
  }
  /// The first of the texts that is in no message behind that of the text before it; empty if they come in this order.
  std::string missingInOrder(std::initializer_list<std::string_view> texts) const {
    const auto all = lines();
    auto next = all.begin();
    for (const std::string_view text : texts) {
      next = std::find_if(next, all.end(), [text](auto& line) { return line.find(text) != line.npos; });
      if (next++ == all.end()) return std::string(text);
    }
    return {};
  }
  /// Is told each message from now on, on the thread that logs it.
  void onMessage(std::function<void(std::string_view)> listener) {
    std::lock_guard lock(mutex_);
    listener_ = std::move(listener);
  }
  void clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
  }

 private:
  LogDiary() {
    platform::setSystemLogSink([this](std::string_view message) {
      std::lock_guard lock(mutex_);
      lines_.emplace_back(message);
      if (listener_) listener_(message);
    });
  }
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  std::function<void(std::string_view)> listener_;
};

}  // namespace tarvo::test
