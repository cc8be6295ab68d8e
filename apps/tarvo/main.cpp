#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <string>

#include <tarvo/Version.h>

#include "Commands.h"
#include "Console.h"

namespace {

/// A file or connection opened later must not take the number of a standard stream that is closed: what is printed
/// would go there. Answers whether standard output is open.
bool holdStandardStreams() {
  const bool printable = ::fcntl(STDOUT_FILENO, F_GETFD) >= 0;
  int descriptor = 0;
  do descriptor = ::open("/dev/null", O_RDWR);
  while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor > STDERR_FILENO) ::close(descriptor);
  return printable;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace tarvo::cli;
  if (!holdStandardStreams()) {
    std::cerr << "tarvo: standard output is closed" << std::endl;
    return kUnusable;
  }
  CLI::App app("Collects and delivers the positions of this device; plays recorded trips; reads what was collected.",
               "tarvo");
  app.set_version_flag("--version", std::string("tarvo ") + tarvo::version());
  app.require_subcommand(1);
  Run run;
#ifdef TARVO_WITH_UNIT
  addRunCommand(app, run);
  addRequestCommands(app, run);
#endif
  addReplayCommand(app, run);
  addReadCommands(app, run);
  addEraseCommand(app, run);
  addSandboxCommand(app, run);
  addSimulateCommand(app, run);
  addDocumentCommand(app, run);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kUsage;
  }
  try {
    const int status = run();
    if (!std::cout.flush()) throw Failure{kUnusable, "standard output cannot be written"};
    return status;
  } catch (const Failure& failure) {
    std::cerr << "tarvo: " << failure.message << std::endl;
    return failure.status;
  } catch (const std::exception& error) {
    std::cerr << "tarvo: " << error.what() << std::endl;
    return kUnusable;
  }
}
