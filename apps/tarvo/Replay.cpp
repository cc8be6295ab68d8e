#include "Replay.h"

#include <linux/close_range.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
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

#include "Channel.h"
#include "Commands.h"
#include "Console.h"
#include "Home.h"
#include "Script.h"
#include "Session.h"
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

constexpr const char* kRelaunchVariable = "TARVO_REPLAY_RELAUNCH";
constexpr const char* kRelaunchHomeVariable = "TARVO_REPLAY_HOME";  // on its own: a path need not be UTF-8

std::string concatenated(const std::string& name, const std::string& value) { return name + "=" + value; }

std::vector<std::string> commandLine() {
  std::ifstream file("/proc/self/cmdline", std::ios::binary);
  std::vector<std::string> arguments;
  for (std::string argument; std::getline(file, argument, '\0');) arguments.push_back(argument);
  return arguments;
}

}  // namespace

std::optional<Relaunch> Relaunch::take() {
  const char* text = std::getenv(kRelaunchVariable);
  if (text == nullptr) return std::nullopt;
  const auto json = nlohmann::json::parse(text, nullptr, false);
  const char* const home = std::getenv(kRelaunchHomeVariable);
  ::unsetenv(kRelaunchVariable);
  try {
    return Relaunch{json.at("events"),           json.at("fixes"),      json.at("delivered"), json.at("batches"),
                    json.at("unsaved"),          json.at("seconds"),    json.at("battery"),   json.at("batteryLevel"),
                    home != nullptr ? home : "", json.at("sandboxPort")};
  } catch (const nlohmann::json::exception&) {
    throw Failure{kUsage, std::string(kRelaunchVariable) + " is set by the program alone"};
  }
}

void Relaunch::launch() const {
  const nlohmann::json json = {
      {"events", events},          {"fixes", fixes},     {"delivered", delivered}, {"batches", batches},
      {"unsaved", unsaved},        {"seconds", seconds}, {"battery", battery},     {"batteryLevel", batteryLevel},
      {"sandboxPort", sandboxPort}};
  std::vector<std::string> arguments = commandLine();
  // Not through setenv: other threads may be reading the environment.
  std::vector<std::string> variables = {concatenated(kRelaunchVariable, json.dump()),
                                        concatenated(kRelaunchHomeVariable, home)};
  std::vector<char*> environment;
  for (char** variable = ::environ; *variable != nullptr; ++variable) environment.push_back(*variable);
  for (std::string& variable : variables) environment.push_back(variable.data());
  environment.push_back(nullptr);
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  std::cout.flush();
  ::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
  ::execve("/proc/self/exe", pointers.data(), environment.data());
  throw Failure{kUnusable, std::string("the program cannot be launched again: ") + std::strerror(errno)};
}

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
    if (!before) note("the page of the sandbox is " + sandbox->pageURL());
  }

  const auto clock = std::make_shared<ManualClock>(before && before->events > 0 && before->events <= script.size()
                                                       ? std::max(script[before->events - 1].at, firstFix)
                                                       : firstFix);
  platform::Clock::install(clock);
  platform::setHomeDirectory(home.directory());
  if (options.confirmed) {
    DeliveryOptions delivery = Tarvo::deliveryOptions();
    delivery.confirmed = true;
    Tarvo::setDeliveryOptions(delivery);
  }
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
  if (options.channel) session.connect(*options.channel);
  if (sandbox) session.connect(sandbox->origin());
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

void addReplayCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<ReplayOptions>();
  CLI::App* command = app.add_subcommand("replay", "Plays a recorded trip (GPX) through the SDK");
  command->footer(
      "The SDK's clock follows the trip. After the last fix the command waits until every stored position is\n"
      "acknowledged. An interrupt ends the play with a summary, a second one ends the process.\n"
      "Exit status: 0 all sent (or nothing to send in this mode); 1 positions are left; 2 wrong usage or trace;\n"
      "3 the home or its store cannot be used, another process writes to it, or positions could not be saved;\n"
      "130 interrupted.");
  command->add_option("TRACE", options->trace, "The trip: a GPX file, 1.0 or 1.1")->required()->type_name("");
  auto* backend = command->add_option("--backend", options->backend, "Base address of the backend, ending in /api")
                      ->type_name("URL");
  auto* sandbox = command->add_flag("--sandbox", options->sandbox, "Serve a backend on a free port of this machine");
  sandbox->excludes(backend);
  command->add_option("--sandbox-db", options->sandboxArchive, "What the sandbox keeps [sandbox.sqlite in the home]")
      ->needs(sandbox)
      ->type_name("FILE");
  command
      ->add_option("--sandbox-data", options->sandboxData,
                   "Prediction, past trips and places that the sandbox answers with (JSON)")
      ->needs(sandbox)
      ->type_name("FILE");
  command
      ->add_option_function<std::string>(
          "--channel",
          [options](const std::string& url) {
            options->channel = Channel::originOf(url);
            if (!options->channel) throw CLI::ValidationError("--channel", "neither https nor this machine: " + url);
          },
          "A sandbox whose page may send pushes here and is told how this host is doing")
      ->excludes(sandbox)
      ->type_name("URL");
  command
      ->add_option("--script", options->script,
                   "What happens to the phone meanwhile, one JSON object a line: docs/replay.md")
      ->type_name("FILE");
  command->add_option("--home", options->home, "Holds everything of the run [a new temporary folder]")
      ->type_name("DIR");
  command->add_option("--mode", options->mode, "Activation mode: 0 and 4 keep positions here, 8 and 12 upload them")
      ->check(CLI::IsMember({0, 4, 8, 12}))
      ->capture_default_str();
  command
      ->add_option_function<std::string>(
          "--speed",
          [options](const std::string& text) {
            const auto speed = parseSpeed(text);
            if (!speed) throw CLI::ValidationError("--speed", "neither max nor a number above 0: " + text);
            options->speed = *speed;
          },
          "How much faster than real time [max]")
      ->type_name("N|max");
  command->add_option("--client-id", options->clientID, "Client identifier [the property list's, else demo]");
  command->add_option("--api-key", options->apiKey, "API key [the property list's, else demo-key with --sandbox]");
  command->add_option("--api-secret", options->apiSecret, "Secret of the API key [demo-secret with --sandbox]")
      ->envname("TARVO_API_SECRET");
  command
      ->add_option("--deadline", options->deadlineSeconds,
                   "Real seconds after the last fix to wait for acknowledgements")
      ->check([](const std::string& text) {
        const auto seconds = parseNumber(text);
        return seconds && *seconds >= 0 ? std::string() : "neither 0 nor a number above: " + text;
      })
      ->capture_default_str();
  command->add_flag("--confirmed", options->confirmed,
                    "Only an answer 200 whose \"success\" is true acknowledges positions; others are sent again");
  command->add_flag("--json", options->json, "Print the summary as one JSON object");
  command->add_flag("--verbose", options->verbose,
                    "Show on standard error what happens: the script, modes, regions, stored events");
  command->add_flag("--log", options->log, "Show the SDK's messages on standard error");
  command->callback([options, &run] {
    if (options->mode >= 8 && !options->sandbox && !options->backend)
      throw CLI::RequiredError("--backend URL or --sandbox (modes 8 and 12 upload)");
    run = [options] { return replay(*options); };
  });
}

}  // namespace tarvo::cli
