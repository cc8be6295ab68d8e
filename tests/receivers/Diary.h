#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "receivers/Receiver.h"
#include "simulate/Simulation.h"

namespace tarvo::test {

/// Writes down what a receiver tells.
class Diary final : public receivers::Listener {
 public:
  using Fixes = std::vector<platform::CLLocation>;

  void received(const Fixes& fixes) override {
    const std::lock_guard lock(mutex_);
    fixes_.insert(fixes_.end(), fixes.begin(), fixes.end());
    changed_.notify_all();
  }
  void changed(receivers::Condition condition, const std::string& line) override {
    const std::lock_guard lock(mutex_);
    conditions_.push_back(condition);
    lines_.push_back(line);
    changed_.notify_all();
  }

  bool waitForFixes(std::size_t count, std::chrono::milliseconds patience = std::chrono::seconds(30)) {
    return waitUntil([=, this] { return fixes_.size() >= count; }, patience);
  }
  /// Until exactly these have been told, one after the other.
  bool waitForConditions(const std::vector<receivers::Condition>& all) {
    return waitUntil([&] { return conditions_ == all; });
  }
  Fixes fixes() { return std::lock_guard(mutex_), fixes_; }
  std::vector<std::string> lines() { return std::lock_guard(mutex_), lines_; }

 private:
  bool waitUntil(const std::function<bool()>& holds, std::chrono::milliseconds patience = std::chrono::seconds(30)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, patience, holds);
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  Fixes fixes_;
  std::vector<receivers::Condition> conditions_;
  std::vector<std::string> lines_;
};

/// An invented drive, and the sentences of each of its fixes.
struct Drive {
  explicit Drive(std::int64_t startSeconds) {
    made =
        simulation::simulate({.from = {-33.8, -70.6}, .to = {-33.76, -70.64}, .seed = 4, .start = startSeconds * 1000});
    std::ostringstream out;
    simulation::writeNmea(out, made);
    std::istringstream lines(out.str());
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line)) {
      if (line.starts_with("$GPRMC")) sentences.emplace_back();
      sentences.back() += line + "\n";
    }
  }
  /// Of the fixes from one index to another.
  std::string text(std::size_t from, std::size_t to) const {
    std::string all;
    for (std::size_t i = from; i < to; ++i) all += sentences.at(i);
    return all;
  }
  /// Whether fixes are those of the drive at their times.
  void expect(const Diary::Fixes& fixes) const {
    for (const auto& fix : fixes) {
      const double ms = platform::secondsSince1970(fix.timestamp) * 1000;
      const auto driven = std::ranges::lower_bound(made.fixes, std::llround(ms), {}, &simulation::Fix::ms);
      ASSERT_TRUE(driven != made.fixes.end() && driven->ms == std::llround(ms)) << ms;
      EXPECT_NEAR(fix.coordinate.latitude, driven->at.lat, 1e-6);
      EXPECT_NEAR(fix.coordinate.longitude, driven->at.lon, 1e-6);
      EXPECT_NEAR(fix.speed, driven->speed, 0.01);
    }
  }
  simulation::Simulation made;
  std::vector<std::string> sentences;
};

}  // namespace tarvo::test
