#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace tarvo::cli {

/// Each adds subcommands with their options; when the command line names it, `run` becomes what it does. The result
/// of `run` is the exit status; it throws Failure.
using Run = std::function<int()>;
void addRunCommand(CLI::App& app, Run& run);
void addRequestCommands(CLI::App& app, Run& run);  ///< flush, push, set: of a unit that runs
void addReplayCommand(CLI::App& app, Run& run);
void addReadCommands(CLI::App& app, Run& run);  ///< history, trips, pois, status
void addEraseCommand(CLI::App& app, Run& run);
void addSandboxCommand(CLI::App& app, Run& run);
void addSimulateCommand(CLI::App& app, Run& run);
void addDocumentCommand(CLI::App& app, Run& run);  ///< hidden; describes all that is added, also later

}  // namespace tarvo::cli
