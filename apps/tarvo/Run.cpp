// The command that runs a device: `tarvo run`.

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "Channel.h"
#include "Commands.h"
#include "Console.h"
#include "Home.h"
#include "Status.h"
#include "unit/Unit.h"

namespace tarvo::cli {
namespace {

void check(const unit::UnitOptions& options) {
  if (!options.channel.empty() && !Channel::originOf(options.channel))
    throw unit::OptionError("channel: neither https nor this machine: " + options.channel);
}

/// Pushes from a sandbox's page, and what its page shows of this unit.
std::shared_ptr<void> connectTo(const Tarvo& tarvo, const unit::UnitOptions& options, const std::string& secret) {
  return std::make_shared<Channel>(
      Channel::Host{Channel::originOf(options.channel).value(), options.apiKey, secret,
                    [tarvo, home = Home(options.home)] { return statusText(tarvo, home); },
                    // Breaks of the protocol are dropped, or somebody has decided otherwise.
                    [] { return true; }},
      tarvo);
}

int runUnit(const unit::OptionReader& reader) {
  try {
    return unit::runUnit(
        reader,
        {check, [](const Tarvo& tarvo, const std::filesystem::path& home) { return statusText(tarvo, Home(home)); },
         connectTo});
  } catch (const unit::OptionError& error) {
    throw Failure{kUsage, error.what()};
  } catch (const unit::UnitError& error) {
    throw Failure{kUnusable, error.what()};
  }
}

}  // namespace

void addRunCommand(CLI::App& app, Run& run) {
  CLI::App* command = app.add_subcommand("run", "Runs this device: takes fixes of a receiver and delivers positions");
  command->footer(
      "SPAN is a number of seconds or one with its unit (90, 10min, 12h, 30d), BYTES likewise (5MB). A key of the "
      "file\n"
      "is the long name of an option; what the command line gives goes before it. SIGHUP reads the file again, "
      "SIGTERM\n"
      "and SIGINT end the unit once what is unsent was tried for --flush-timeout. docs/daemon.md tells more.\n"
      "Exit status: 0 ended by a signal or with its recording; 2 wrong usage or file; 3 the home or its store cannot "
      "be\n"
      "used, or another process writes to it.");
  const auto reader = std::make_shared<unit::OptionReader>(*command);
  command->callback([reader, &run] { run = [reader] { return runUnit(*reader); }; });
}

}  // namespace tarvo::cli
