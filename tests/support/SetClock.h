#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>

#include <tarvo/platform/Clock.h>

namespace tarvo::test {

/// Runs with a clock that is moved by hand, or without one with the machine's, and shows what somebody has set.
struct SetClock final : platform::Clock {
  explicit SetClock(std::shared_ptr<platform::ManualClock> byHand) : running(std::move(byHand)) {}

  static std::shared_ptr<SetClock> installed(std::shared_ptr<platform::ManualClock> running) {
    auto clock = std::make_shared<SetClock>(std::move(running));
    platform::Clock::install(clock);
    return clock;
  }
  platform::Date now() const override {
    return (running ? running->now() : platform::Date(monotonic())) + platform::Seconds(offset.load());
  }
  platform::Seconds monotonic() const override {
    ++looks;
    return running ? running->monotonic() : std::chrono::steady_clock::now().time_since_epoch();
  }
  std::optional<platform::Seconds> realTimeUntil(platform::Date date) const override {
    return running ? std::nullopt : std::optional(date - now());
  }

  const std::shared_ptr<platform::ManualClock> running;
  std::atomic<double> offset = 0;  ///< seconds by which the wall clock was set
  mutable std::atomic<int> looks = 0;
};

}  // namespace tarvo::test
