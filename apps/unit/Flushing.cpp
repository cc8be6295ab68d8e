#include "unit/Flushing.h"

#include <list>
#include <memory>
#include <thread>
#include <utility>

#include <tarvo/Tarvo.h>
#include <tarvo/platform/MainQueue.h>

namespace tarvo::unit {
namespace {

using Threads = std::list<std::thread>;

/// Of the main thread. Never destroyed: a thread may still be in it.
Threads& threads() {
  static auto* const threads = new Threads;
  return *threads;
}

}  // namespace

std::string reasonOf(FlushResult result) {
  switch (result) {
    case FlushResult::delivered:
      return "";
    case FlushResult::timeIsUp:
      return "the time is up";
    case FlushResult::modeForbids:
      return "the mode uploads nothing";
    case FlushResult::notRegistered:
      return "this device is not registered and has no secret";
    case FlushResult::bytesUsedUp:
      return "the day's bytes of the metered network are used up";
    case FlushResult::sessionFailed:
      return "this process cannot upload any more";
    case FlushResult::storeUnavailable:
      return "the store cannot be used";
  }
  return "";
}

void flushBeside(const Loop& loop, platform::Seconds bound, std::function<void(FlushResult)> done) {
  const auto place = threads().emplace(threads().end());
  const auto result = std::make_shared<FlushResult>();
  const auto ended = loop.whileAlive([place, result, done = std::move(done)] {
    place->join();
    threads().erase(place);
    done(*result);
  });
  try {
    *place = std::thread([bound, result, ended] {
      *result = Tarvo::flush(bound.count());
      platform::MainQueue::main().async(ended);
    });
  } catch (...) {
    threads().erase(place);
    throw;
  }
}

}  // namespace tarvo::unit
