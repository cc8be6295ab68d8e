#pragma once

#include <functional>
#include <memory>

#include "unit/Loop.h"

namespace tarvo::receivers {
class UPower;
}

namespace tarvo::unit {

/// Tells the SDK the battery where the kernel shows none but UPower knows one. Without either nothing happens.
///
/// Threads: main; `changed` comes there. To be built once the SDK is active. Errors: none.
class Power {
 public:
  Power(const Loop& loop, std::function<void()> changed);
  ~Power();
  Power(const Power&) = delete;
  Power& operator=(const Power&) = delete;

 private:
  std::unique_ptr<receivers::UPower> source_;
};

}  // namespace tarvo::unit
