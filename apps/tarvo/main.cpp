#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>

#include "Commands.h"
#include "Failure.h"

int main(int argc, char** argv) {
  using namespace tarvo::cli;
  CLI::App app("Runs recorded trips through the SDK and reads what it holds.", "tarvo");
  app.set_version_flag("--version", "tarvo " TARVO_VERSION);
  app.require_subcommand(1);
  Run run;
  addReplayCommand(app, run);
  addHistoryCommand(app, run);
  addListCommands(app, run);
  addStatusCommand(app, run);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kUsage;
  }
  try {
    return run();
  } catch (const Failure& failure) {
    std::cerr << "tarvo: " << failure.message << std::endl;
    return failure.status;
  } catch (const std::exception& error) {
    std::cerr << "tarvo: " << error.what() << std::endl;
    return kUnusable;
  }
}
