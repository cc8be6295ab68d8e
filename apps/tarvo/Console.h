#pragma once

namespace tarvo::cli {

/// Sends the SDK's messages to standard error when `shown`; otherwise drops them, all but the last words of a process
/// that has to stop.
void installConsole(bool shown);

/// From here on SIGINT and SIGTERM are only remembered; the second one ends the process as usual.
void watchInterrupts();
bool interrupted();

}  // namespace tarvo::cli
