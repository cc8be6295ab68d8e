#pragma once

#include <memory>
#include <optional>
#include <string>

#include <tarvo/platform/Date.h>

#include "unit/Loop.h"

namespace tarvo::unit {

/// What a service manager is told through `$NOTIFY_SOCKET`, and the watchdog that it asks for. Without a service
/// manager all of it does nothing.
///
/// The watchdog is fed after `Tarvo::probe` has answered and never otherwise, so a part of the SDK that is stuck, or
/// this loop, keeps it away. At most one question is open.
///
/// Threads: main. Errors: none.
class Supervisor {
 public:
  /// `fed` is called after each answer.
  Supervisor(Loop& loop, Loop::Work fed);

  /// The unit holds its home and goes on by itself, which may still be to wait for the time. The watchdog begins.
  void ready();
  void reloading() const;
  void reloaded() const;
  /// It ends within that time.
  void stopping(platform::Seconds bound) const;

  /// One line for people; the same line is told once.
  void status(const std::string& line);

 private:
  void ask();

  Loop& loop_;
  const Loop::Work fed_;
  std::string told_;
  platform::Seconds interval_{0};
  std::unique_ptr<Loop::Timer> watchdog_;
};

}  // namespace tarvo::unit
