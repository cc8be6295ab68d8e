#include "Replay.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <tarvo/LocationManager.h>
#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Device.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/GpxReplay.h>
#include <tarvo/platform/LocationService.h>

#include "Console.h"
#include "Failure.h"
#include "Home.h"
#include "Relaunch.h"
#include "Script.h"
#include "Session.h"
#include "Watch.h"
#include "sandbox/Backend.h"

namespace tarvo::cli {
namespace {

using platform::GpxTrace;
using platform::ManualClock;

constexpr const char* kDefaultClient = "demo";
constexpr const char* kDefaultKey = "demo-key";
GpxTrace readTrace(const std::string& file, bool tell) {
  std::string error;
  auto trace = GpxTrace::read(file, error);
  if (!trace) throw Failure{kUsage, error};
  if (!tell) return std::move(*trace);
  if (trace->untimed > 0) note("skipped " + std::to_string(trace->untimed) + " points without a time");
  if (trace->outOfRange > 0) note("skipped " + std::to_string(trace->outOfRange) + " points out of range");
  if (trace->backwards > 0) note(std::to_string(trace->backwards) + " fixes go back in time; kept in file order");
  return std::move(*trace);
}

/// A property list that is there stays as it is unless keys are given.
void describeHost(const Home& home, const ReplayOptions& options) {
  HostKeys keys{options.apiKey, options.clientID};
  if (!home.hasPropertyList()) {
    if (!keys.clientID) keys.clientID = kDefaultClient;
    if (!keys.apiKey && options.sandbox) keys.apiKey = kDefaultKey;
  }
  if (keys.clientID || keys.apiKey) home.writeKeys(keys);
}

/// The sandbox serves the client that the property list names.
std::unique_ptr<sandbox::Backend> startSandbox(const Home& home, const ReplayOptions& options, int port) {
  const HostKeys keys = home.readKeys();
  const sandbox::Account account{keys.clientID.value_or(kDefaultClient), keys.apiKey.value_or(kDefaultKey),
                                 options.apiSecret.value_or(kDefaultSecret)};
  const std::string archive = options.sandboxArchive.value_or(home.sandboxArchive().string());
  try {
    auto backend = std::make_unique<sandbox::Backend>(account, archive);
    if (options.sandboxData) backend->serve(sandbox::readCanned(*options.sandboxData));
    backend->start(port);
    return backend;
  } catch (const std::exception& error) {
    throw Failure{kUnusable, "the sandbox cannot serve from " + archive + ": " + error.what()};
  }
}

}  // namespace

int replay(const ReplayOptions& options) {
  const std::optional<Relaunch> before = Relaunch::take();
  installConsole(options.log);
  if (options.backend && !LocationManager::setRemoteWebServerURL(*options.backend))
    throw Failure{kUsage, "--backend: " + *options.backend + " is neither an https URL nor plain http to this machine"};
  GpxTrace trace = readTrace(options.trace, !before);
  const platform::Date firstFix = trace.fixes.front().timestamp;
  const auto script = options.script ? readScript(*options.script, firstFix) : std::vector<ScriptEvent>();

  const Home home = before ? Home(before->home) : options.home ? Home(*options.home) : Home::temporary();
  home.create();
  if (!options.home && !before) note("the home of this run is " + home.directory().string());
  describeHost(home, options);
  std::unique_ptr<sandbox::Backend> sandbox;
  if (options.sandbox) {
    sandbox = startSandbox(home, options, before ? before->sandboxPort : 0);
    LocationManager::setRemoteWebServerURL(sandbox->baseURL());
  }

  const auto clock = std::make_shared<ManualClock>(before && before->events > 0 && before->events <= script.size()
                                                       ? std::max(script[before->events - 1].at, firstFix)
                                                       : firstFix);
  platform::Clock::install(clock);
  platform::setHomeDirectory(home.directory());
  // A device on its battery, whatever this machine runs on, until the script says otherwise.
  const Relaunch device = before.value_or(Relaunch());
  platform::UIDevice::current().setBattery(platform::UIDeviceBatteryState{device.battery}, device.batteryLevel);
  if (before) {
    // The system launches an application in the background, and knows where the device was last.
    platform::UIApplication::shared().didEnterBackground();
    if (before->fixes > 0 && before->fixes <= trace.fixes.size())
      platform::LocationService::shared().deliver({trace.fixes[before->fixes - 1]});
  }
  // Kept for good: the log goes on until the process has ended.
  Watch* const watch = options.verbose ? new Watch(clock) : nullptr;
  if (watch != nullptr) installConsole(options.log, [watch](std::string_view text) { watch->message(text); });
  watchInterrupts();
  Session session(options, home, clock, watch, before);
  session.activate();
  if (session.play(std::move(trace), script)) {
    Relaunch next = session.done();
    next.home = home.directory();
    next.sandboxPort = sandbox ? sandbox->port() : 0;
    next.launch();
  }
  const int status = session.summarize(sandbox.get());
  // With work in flight the backend must outlast it: refused transfers would count as answers. It ends with the
  // process.
  if (status != kDone) static_cast<void>(sandbox.release());
  return status;
}

}  // namespace tarvo::cli
