#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "Arguments.h"
#include "Commands.h"
#include "Replay.h"

namespace tarvo::cli {

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
