#pragma once

#include <functional>
#include <string>

#include <tarvo/Tarvo.h>
#include <tarvo/platform/Value.h>

#include "unit/Control.h"

namespace tarvo::unit {

/// What the requests on a unit's socket do: status, flush, push and set (docs/daemon.md).
///
/// Threads: main. Errors: they are answered.
class Requests {
 public:
  struct Unit {
    std::function<platform::Dictionary()> status;
    /// Whether it collects, so that the SDK may be told something.
    std::function<bool()> isActive;
    /// Something may have been stored.
    std::function<void()> stored;
  };

  Requests(Tarvo tarvo, const Loop& loop, Unit unit);

  void take(const platform::Dictionary& request, const Control::Reply& reply);

 private:
  void flush(const platform::Dictionary& request, const Control::Reply& reply);
  platform::Dictionary push(const platform::Dictionary& request);
  platform::Dictionary set(const std::string& key, const std::string& value);

  Tarvo tarvo_;
  const Loop& loop_;
  const Unit unit_;
  int flushes_ = 0;  ///< under way
};

/// Tells the SDK the application's state, "active", "inactive" or "background"; false for another text.
bool setState(const std::string& state);
/// Sets the level of the log file, 0 to 10, where it is another one; false for another number.
bool setLogLevel(std::int64_t level);

}  // namespace tarvo::unit
