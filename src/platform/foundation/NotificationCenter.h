#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace tarvo::platform {

/// Tells whoever asked that something of a name has happened.
///
/// Threads: any. `post` runs all observers of the name on its own thread, in the order in which they registered,
/// with no lock held, and returns after the last. Observers stay for the life of the process.
class NotificationCenter {
 public:
  static NotificationCenter& defaultCenter();

  void addObserver(std::string name, std::function<void(const std::string& name)> observer);
  void post(std::string_view name);

 private:
  NotificationCenter();
  struct State;
  State& state_;
};

}  // namespace tarvo::platform
