#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>

#include <tarvo/platform/Date.h>

namespace tarvo::unit {

/// The event loop of the main thread: descriptors, timers, signals and the SDK's main queue. While none of them has
/// anything to say it sleeps.
///
/// Threads: `post` from any; the rest on the main thread, on which all callbacks run. Build it before any other thread,
/// since those inherit what signals are blocked. Errors: std::system_error where the system refuses.
class Loop {
 public:
  using Work = std::function<void()>;

  Loop();
  ~Loop();
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  /// Watches a descriptor until it is destroyed, which its own callback may do.
  class Watch {
   public:
    virtual ~Watch() = default;
    /// What to wait for; at first it is reading. Neither: only a hang-up is told.
    virtual void waitFor(bool reading, bool writing) = 0;
  };
  std::unique_ptr<Watch> watch(int descriptor, Work ready);

  /// Runs its work once each time it was armed, as late as a tenth of the span, so that several wake the process at
  /// once. Time counts on while the machine is suspended.
  class Timer {
   public:
    virtual ~Timer() = default;
    virtual void arm(platform::Seconds span) = 0;
    virtual void disarm() = 0;
    virtual bool isArmed() const = 0;
  };
  std::unique_ptr<Timer> timer(Work due);

  void onSignals(std::initializer_list<int> signals, Work work);
  /// From here on the first of these signals ends the process as if nobody waited for it, also while the loop hangs.
  void endOnSignals(std::initializer_list<int> signals);
  /// When somebody sets the machine's clock.
  void onClockSet(Work work);

  /// Runs the work on the main thread, if the loop still lives by then.
  void post(Work work) const;
  /// `post` for those who may outlive the loop.
  std::function<void(Work)> poster() const;
  /// The work, which does nothing once the loop has gone; for callbacks on the main queue.
  Work whileAlive(Work work) const;

  /// Runs until `end`, whose status it answers.
  int run();
  void end(int status);

 private:
  struct State;
  std::unique_ptr<State> state_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace tarvo::unit
