/// @file
/// The clock that everything reads, and one that its owner moves.
#pragma once

#include <memory>
#include <optional>

#include <tarvo/Export.h>
#include <tarvo/platform/Date.h>

namespace tarvo::platform {

/// Where all code reads the time: positions, ages, the upload channel and file names follow the installed clock's wall
/// time, spans that the location service measures its monotonic time. Only network time-outs and the wait for another
/// process run on the machine's own time.
///
/// Threads: any. A clock is installed before the first touch of the library and kept for good. It is read in the midst
/// of the library's work, so its operations neither call back nor throw.
class TARVO_API Clock {
 public:
  virtual ~Clock() = default;

  /// Wall time.
  virtual Date now() const = 0;
  /// Time since an arbitrary start; never goes backwards, and is not touched when the wall clock is set. The machine's
  /// own counts on while it is suspended.
  virtual Seconds monotonic() const = 0;
  /// Real seconds until this clock shows `date` by itself; absent when only a caller moves it.
  virtual std::optional<Seconds> realTimeUntil(Date date) const = 0;

  /// The installed clock; the machine's own until another is installed.
  static std::shared_ptr<Clock> current();
  /// Takes the place of the installed clock; an empty pointer brings the machine's own back.
  static void install(std::shared_ptr<Clock> clock);
};

/// A clock that stands still until its owner moves it: tests and replays.
///
/// Threads: any. `advanceTo` returns after the timers that became due have been handed to their queues.
class TARVO_API ManualClock final : public Clock {
 public:
  /// Shows `start`; its monotonic time begins at 0.
  explicit ManualClock(Date start);
  ~ManualClock() override;

  Date now() const override;
  Seconds monotonic() const override;
  std::optional<Seconds> realTimeUntil(Date date) const override;

  /// Moves forward to `date`; an earlier date changes nothing.
  void advanceTo(Date date);
  /// Moves forward by `span`; a negative one changes nothing.
  void advance(Seconds span);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace tarvo::platform
