// The commands that ask a running unit: flush, push, set, and `status --watch`.

#include <unistd.h>
#include <CLI/CLI.hpp>
#include <chrono>
#include <cmath>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

#include "Requests.h"

#include "Commands.h"
#include "Console.h"
#include "unit/ControlClient.h"
#include "unit/UnitOptions.h"

namespace tarvo::cli {
namespace {

using platform::Dictionary;
using platform::Value;
using unit::ControlClient;

struct RequestOptions {
  std::filesystem::path home = unit::defaultHome();
  double timeout = 60;
  std::string file, key, value;
};

/// A unit answers at once, unless it is asked to wait.
constexpr double kAnswer = 10;
constexpr std::uintmax_t kLargestPush = 32 * 1024;

ControlClient connectTo(const std::filesystem::path& home) {
  std::string error;
  auto client = ControlClient::connect(home, error);
  if (!client) throw Failure{kUnusable, error};
  return std::move(*client);
}

/// The answer to one request. Fails with what the unit says against it.
Dictionary ask(ControlClient& client, const Dictionary& request, double seconds) {
  std::string error;
  auto answer = client.ask(request, platform::Seconds(seconds), error);
  if (!answer) throw Failure{kUnusable, error};
  return std::move(*answer);
}

int flush(const RequestOptions& options) {
  ControlClient client = connectTo(options.home);
  const Dictionary answer =
      ask(client, {{"request", "flush"}, {"seconds", options.timeout}}, options.timeout + kAnswer);
  const std::int64_t left = platform::findInteger(answer, "left").value_or(0);
  if (left == 0) return kDone;
  note(std::to_string(left) + (left == 1 ? " position is" : " positions are") +
       " not acknowledged: " + platform::findString(answer, "why").value_or(""));
  return kLeft;
}

int push(const RequestOptions& options) {
  std::ifstream opened(options.file, std::ios::binary);
  std::istream& file = options.file == "-" ? std::cin : opened;
  std::string text;
  text.resize(kLargestPush + 1);
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (options.file != "-" && !opened.is_open()) throw Failure{kUsage, options.file + " cannot be read"};
  const auto payload = Value::fromJson(text);
  if (text.size() > kLargestPush || !payload || payload->asDictionary() == nullptr)
    throw Failure{kUsage, options.file + " is no JSON object of at most 32 KiB"};
  ControlClient client = connectTo(options.home);
  const Dictionary answer = ask(client, {{"request", "push"}, {"payload", *payload}}, kAnswer);
  const Value* const handled = platform::find(answer, "handled");
  if (handled != nullptr && handled->asBool() == true) return kDone;
  note("the message is not for the SDK: its \"messageFrom\" is not the text \"tarvo\"");
  return kLeft;
}

int set(const RequestOptions& options) {
  ControlClient client = connectTo(options.home);
  ask(client, {{"request", "set"}, {"key", options.key}, {"value", options.value}}, kAnswer);
  return kDone;
}

/// One line for people; the unit has written it.
std::string lineOf(const Dictionary& answer) { return platform::findString(answer, "line").value_or(""); }

CLI::App* add(CLI::App& app, RequestOptions& options, const std::string& name, const std::string& meaning) {
  CLI::App* const command = app.add_subcommand(name, meaning);
  command->add_option("--home", options.home, "The home of the unit [$STATE_DIRECTORY, else /var/lib/tarvo]")
      ->type_name("DIR");
  return command;
}

}  // namespace

std::optional<int> watchUnit(const std::filesystem::path& home, bool json) {
  std::string error;
  auto client = ControlClient::connect(home, error);
  if (!client) return std::nullopt;
  watchInterrupts();
  const bool inPlace = !json && ::isatty(STDOUT_FILENO) == 1;
  while (!interrupted()) {
    const auto answer = client->ask({{"request", "status"}}, platform::Seconds(kAnswer), error);
    if (!answer) {
      if (interrupted()) break;
      throw Failure{kLeft, error};
    }
    if (json)
      std::cout << Value(*answer).toJson().value_or("{}") << std::endl;
    else
      std::cout << (inPlace ? "\r\033[K" : "") << lineOf(*answer) << (inPlace ? "" : "\n") << std::flush;
    if (!std::cout) throw Failure{kUnusable, "standard output cannot be written"};
    client->waitForEnd(platform::Seconds(1));
  }
  if (inPlace) std::cout << std::endl;
  return kDone;
}

void addRequestCommands(CLI::App& app, Run& run) {
  const auto options = std::make_shared<RequestOptions>();
  CLI::App* command = add(app, *options, "flush", "Asks a running unit to send what is unsent now");
  command->footer(
      "Exit status: 0 all is acknowledged; 1 something is left; 2 wrong usage; 3 no unit runs there, or it does not\n"
      "answer.");
  command->add_option("--timeout", options->timeout, "Seconds at most")
      ->check(CLI::Range(0.0, 3600.0))
      ->type_name("S")
      ->capture_default_str();
  command->callback([options, &run] { run = [options] { return flush(*options); }; });

  command = add(app, *options, "push", "Gives a push message to a running unit");
  command->footer("Exit status: 0 taken; 1 not for the SDK; 2 wrong usage or file; 3 no unit runs there.");
  command->add_option("FILE", options->file, "The payload, a JSON object; - for standard input")
      ->required()
      ->type_name("");
  command->callback([options, &run] { run = [options] { return push(*options); }; });

  command = add(app, *options, "set", "Tells a running unit what has changed, until it ends");
  command->footer(
      "state active|inactive|background: of the application; battery unknown|unplugged|charging|full, with the level "
      "in\n"
      "percent (charging:80); log-level N: of the log file, 10 switches it off, and kept over the unit's end.\n"
      "Exit status: 0 done; 2 wrong usage; 3 no unit runs there, or it refuses.");
  command->add_option("KEY", options->key, "state, battery or log-level")
      ->required()
      ->check(CLI::IsMember({"state", "battery", "log-level"}))
      ->type_name("");
  command->add_option("VALUE", options->value, "What it is from now on")->required()->type_name("");
  command->callback([options, &run] { run = [options] { return set(*options); }; });
}

}  // namespace tarvo::cli
