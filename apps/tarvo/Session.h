#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include <tarvo/Tarvo.h>
#include <tarvo/platform/Clock.h>
#include <tarvo/platform/GpxReplay.h>

#include "Display.h"
#include "Home.h"
#include "Replay.h"
#include "Script.h"

namespace tarvo::sandbox {
class Backend;
}

namespace tarvo::cli {

class Channel;

/// The host application of a replay in one process: activates the SDK, plays trace and script, waits for the rest.
///
/// Threads: the main thread alone; clock and home directory are installed before. Errors: Failure.
class Session {
 public:
  /// `watch` may be absent; `before` is what an earlier process of this replay has left.
  Session(const ReplayOptions& options, const Home& home, std::shared_ptr<platform::ManualClock> clock, Watch* watch,
          const std::optional<Relaunch>& before);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void activate();
  /// Connects to the channel of the sandbox at this origin, until this object ends; once activated.
  void connect(const std::string& origin);
  /// Ends early at a relaunch: true, and `done` tells where.
  bool play(platform::GpxTrace trace, const std::vector<ScriptEvent>& script);
  const Relaunch& done() const { return done_; }

  /// Prints how things stand. Returns the exit status.
  int summarize(sandbox::Backend* sandbox) const;

 private:
  class Listener;

  LocationManager& engine() const { return tarvo_.locationManager(); }
  bool uploads() const { return options_.mode >= Tarvo::BACKEND_BACKGROUND; }
  void claimStore();
  bool relaunches(platform::GpxReplay& replay, const std::vector<ScriptEvent>& script, Progress& progress);
  void sendTheRest(Progress& progress);
  void count(const Progress& progress);

  const ReplayOptions& options_;
  const Home& home_;
  const std::shared_ptr<platform::ManualClock> clock_;
  Watch* const watch_;
  const std::optional<Relaunch> before_;
  const std::shared_ptr<Listener> listener_;
  Tarvo tarvo_;
  std::string secret_;  ///< of the API key
  bool identifiable_ = true;
  Relaunch done_;
  std::unique_ptr<Channel> channel_;
};

}  // namespace tarvo::cli
