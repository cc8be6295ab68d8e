#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "receivers/FixOrder.h"
#include "receivers/Receiver.h"
#include "unit/DeviceClock.h"
#include "unit/Loop.h"

namespace tarvo::unit {

/// Takes what the receiver gives, teaches the device's clock, and hands the fixes on to the SDK once it is open. What
/// comes before is not kept: nobody knows yet when it was.
///
/// Threads: the receiver's; `open` and both callbacks the main thread. Errors: none.
class Intake final : public receivers::Listener {
 public:
  struct Told {
    std::function<void()> timeIsKnown;  ///< once, if it was not known at first
    std::function<void(receivers::Condition, const std::string& line)> changed;
  };

  /// `clock` is empty where the machine's own time was plausible from the start.
  Intake(const Loop& loop, std::shared_ptr<DeviceClock> clock, Told told);

  void open() { isOpen_ = true; }

  /// What the order of the fixes has let through and dropped. Any thread.
  receivers::FixOrder::Statistics statistics() const;

  void received(const std::vector<platform::CLLocation>& fixes) override;
  void changed(receivers::Condition condition, const std::string& line) override;

 private:
  const std::function<void(Loop::Work)> post_;
  const std::shared_ptr<DeviceClock> clock_;
  const std::shared_ptr<const Told> told_;
  mutable std::mutex mutex_;
  receivers::FixOrder order_;  ///< with the mutex
  std::atomic<bool> isOpen_ = false;
  bool toldTime_ = false, isOut_ = false;  ///< of the receiver's thread
};

}  // namespace tarvo::unit
