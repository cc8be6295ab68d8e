#pragma once

#include <string>

#include <tarvo/Tarvo.h>

#include "Home.h"

namespace CLI {
class App;
}

namespace tarvo::cli {

/// Options of every command that only reads a home.
struct ReadingOptions {
  std::string home;
  bool log = false;
};
void addReadingOptions(CLI::App& command, ReadingOptions& options);

/// Opens what the home holds, in the mode that may read all of it; nothing is activated, for that would store a
/// position. Once in a process. Fails with kLeft without a store, with kUnusable when it cannot be used.
Tarvo openForReading(const ReadingOptions& options);

/// Prints to standard output; fails with kUnusable when that cannot be written.
void print(const std::string& text);

}  // namespace tarvo::cli
