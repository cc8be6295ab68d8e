#pragma once

#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
}

namespace tarvo::cli {

/// What the command line knows of itself, as plain data for manual pages and completions. One thread at a time.
struct OptionDescription {
  enum class Kind { Flag, Text, Words, File, Folder };
  std::vector<std::string> names;                            ///< with dashes, the long one last; empty for an operand
  std::string value, meaning, range, standard, environment;  ///< empty where there is none
  std::vector<std::string> words, needs, excludes;
  Kind kind = Kind::Flag;
  bool isRequired = false;
  bool mayLackValue = false;

  bool isOperand() const { return names.empty(); }
};

struct CommandDescription {
  std::string name, meaning;
  std::vector<OptionDescription> options;
  std::vector<std::string> notes;                             ///< sentences or more
  std::vector<std::pair<std::string, std::string>> statuses;  ///< "3" and what it tells
};

struct ProgramDescription {
  std::string meaning;
  std::vector<CommandDescription> commands;  ///< those that are shown
};

/// A value whose type says FILE, PATH or DIR is a path; one of a set of words is known by its check (CLI::IsMember).
/// A footer is notes and, after "Exit status:", the statuses with a semicolon between them.
ProgramDescription describe(CLI::App& app);

}  // namespace tarvo::cli
