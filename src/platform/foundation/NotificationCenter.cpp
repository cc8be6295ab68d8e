#include "platform/foundation/NotificationCenter.h"

#include <memory>
#include <vector>

#include "platform/foundation/Mutex.h"

namespace tarvo::platform {

struct NotificationCenter::State {
  struct Observer {
    std::string name;
    std::function<void(const std::string&)> told;
  };
  Mutex mutex;
  std::vector<std::shared_ptr<const Observer>> observers GUARDED_BY(mutex);
};

NotificationCenter::NotificationCenter() : state_(*new State) {}

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter* center = new NotificationCenter;
  return *center;
}

void NotificationCenter::addObserver(std::string name, std::function<void(const std::string&)> observer) {
  MutexLock lock(state_.mutex);
  state_.observers.push_back(std::make_shared<State::Observer>(State::Observer{std::move(name), std::move(observer)}));
}

void NotificationCenter::post(std::string_view name) {
  std::vector<std::shared_ptr<const State::Observer>> told;
  {
    MutexLock lock(state_.mutex);
    for (const auto& observer : state_.observers)
      if (observer->name == name) told.push_back(observer);
  }
  for (const auto& observer : told) observer->told(observer->name);
}

}  // namespace tarvo::platform
