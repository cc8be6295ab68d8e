// The hidden command that writes down what the program tells of itself: manual pages and completions of shells.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <tarvo/Version.h>

#include "Commands.h"
#include "Console.h"
#include "Description.h"

namespace tarvo::cli {
namespace {

namespace fs = std::filesystem;

/// Text for a line of running roff, where a hyphen is a minus and a dot at the start is no request.
std::string roff(const std::string& text) {
  std::string out;
  for (const char c : text) switch (c) {
      case '\\':
        out += "\\e";
        break;
      case '-':
        out += "\\-";
        break;
      case '~':
        out += "\\(ti";
        break;
      case '^':
        out += "\\(ha";
        break;
      default:
        out += c;
    }
  return out.starts_with('.') || out.starts_with('\'') ? "\\&" + out : out;
}

std::string bold(const std::string& text) { return "\\fB" + roff(text) + "\\fR"; }
std::string italic(const std::string& text) { return "\\fI" + roff(text) + "\\fR"; }
std::string section(const std::string& name) { return ".SH " + name + "\n"; }
std::string entry(const std::string& term, const std::string& meaning) {
  return ".TP\n" + term + "\n" + roff(meaning) + "\n";
}

std::string title(const std::string& page, const std::string& number) {
  std::string upper = page;
  std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });
  return ".TH " + roff(upper) + " " + number + " \"\" \"tarvo " + version() + "\" \"Tarvo\"\n";
}

std::string name(const std::string& page, std::string meaning) {
  if (meaning.size() > 1 && std::islower(static_cast<unsigned char>(meaning[1])) != 0)
    meaning[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(meaning[0])));
  return section("NAME") + roff(page) + " \\- " + roff(meaning) + "\n";
}

std::string listed(const std::vector<std::string>& names) {
  std::string out;
  for (const std::string& one : names) out += (out.empty() ? "" : ", ") + one;
  return out;
}

/// The meaning of an option as sentences; `key` leaves out what a configuration file has no use for.
std::string meaningOf(const OptionDescription& option, bool key) {
  std::string text = option.meaning.empty() ? "See above." : option.meaning + ".";
  if (!option.words.empty()) text += " One of " + listed(option.words) + ".";
  if (!option.range.empty()) text += " " + option.range + ".";
  if (!option.standard.empty()) text += " Default: " + option.standard + ".";
  if (option.isRequired) text += " Required.";
  if (key) return text;
  if (!option.environment.empty()) text += " The environment's " + option.environment + " stands for it.";
  if (!option.needs.empty()) text += " Only with " + listed(option.needs) + ".";
  if (!option.excludes.empty()) text += " Not with " + listed(option.excludes) + ".";
  return text;
}

std::string optionEntries(const CommandDescription& command) {
  std::string out;
  for (const OptionDescription& option : command.options) {
    std::string term;
    for (const std::string& one : option.names) term += (term.empty() ? "" : ", ") + bold(one);
    if (!option.value.empty()) term += (term.empty() ? "" : " ") + italic(option.value);
    out += entry(term, meaningOf(option, false));
  }
  return out;
}

std::string synopsis(const CommandDescription& command) {
  std::string out = section("SYNOPSIS") + bold("tarvo " + command.name) + " [" + italic("OPTION") + "]...";
  for (const OptionDescription& option : command.options) {
    if (!option.isRequired && !option.isOperand()) continue;
    const std::string one =
        option.isOperand() ? italic(option.value) : bold(option.names.back()) + " " + italic(option.value);
    out += option.isRequired ? " " + one : " [" + one + "]";
  }
  return out + "\n";
}

std::string commandPage(const CommandDescription& command) {
  const std::string page = "tarvo-" + command.name;
  std::string out = title(page, "1") + name(page, command.meaning) + synopsis(command) + section("DESCRIPTION") +
                    roff(command.meaning + ".") + "\n";
  for (const std::string& sentence : command.notes) out += ".PP\n" + roff(sentence) + "\n";
  out += section("OPTIONS") + optionEntries(command);
  if (!command.statuses.empty()) out += section("EXIT STATUS");
  for (const auto& [status, meaning] : command.statuses) out += entry(bold(status), meaning + ".");
  return out + section("SEE ALSO") + ".BR tarvo (1)" + (command.name == "run" ? ",\n.BR tarvo.toml (5)\n" : "\n");
}

std::string programPage(const ProgramDescription& program) {
  std::string out = title("tarvo", "1") + name("tarvo", program.meaning) + section("SYNOPSIS") + bold("tarvo") + " " +
                    italic("COMMAND") + " [" + italic("OPTION") + "]...\n" + section("DESCRIPTION") +
                    roff(program.meaning + ". Each command has a page of its own.") + "\n" + section("COMMANDS");
  for (const CommandDescription& command : program.commands)
    out += entry(bold("tarvo-" + command.name) + "(1)", command.meaning + ".");
  return out + section("OPTIONS") + entry(bold("--help"), "Tells a command's options and exits.") +
         entry(bold("--version"), "Tells the version and exits.");
}

/// How a value is written in the daemon's file.
std::string writtenValue(const OptionDescription& option) {
  if (option.value.empty()) return "true|false";
  if (option.mayLackValue && option.value.starts_with('['))
    return '"' + option.value.substr(1, option.value.size() - 2) + "\"|true";
  const bool isBare = option.value == "N" || option.value == "SPAN" || option.value == "BYTES";
  return isBare ? option.value : '"' + option.value + '"';
}

/// The page of the daemon's file, whose keys are the options of `run`.
std::string configurationPage(const CommandDescription& run) {
  std::string out = title("tarvo.toml", "5") + name("tarvo.toml", "configuration of tarvo run") + section("SYNOPSIS") +
                    italic("/etc/tarvo/tarvo.toml") + "\n" + section("DESCRIPTION") +
                    roff(
                        "The file that a unit reads, in the language TOML, without tables. Each key is an option of "
                        "tarvo-run(1), and what the command line gives goes before it. Texts stand in quotes; SPAN "
                        "and BYTES are a number, or a text with its unit. An unknown key or a value of the wrong "
                        "kind ends the unit with a message that names file, line and key.") +
                    "\n" + section("KEYS");
  for (const OptionDescription& option : run.options)
    for (const std::string& one : option.names)
      if (one.starts_with("--") && one != "--help" && one != "--config" && one != "--no-" + option.names[0].substr(2))
        out += entry(bold(one.substr(2)) + " = " + italic(writtenValue(option)), meaningOf(option, true));
  return out + section("SEE ALSO") + ".BR tarvo\\-run (1)\n";
}

std::string optionNames(const CommandDescription& command) {
  std::string out;
  for (const OptionDescription& option : command.options)
    for (const std::string& one : option.names) out += (out.empty() ? "" : " ") + one;
  return out;
}

std::string joined(const std::vector<std::string>& words) {
  std::string out;
  for (const std::string& word : words) out += (out.empty() ? "" : " ") + word;
  return out;
}

/// The shell's command for what may follow an option or stands alone; empty where that is anything.
std::string bashValues(const OptionDescription& option) {
  switch (option.kind) {
    case OptionDescription::Kind::Words:
      return "words '" + joined(option.words) + "'; ";
    case OptionDescription::Kind::File:
      return "files -f; ";
    case OptionDescription::Kind::Folder:
      return "files -d; ";
    default:
      return "";
  }
}

std::string bashCompletion(const ProgramDescription& program) {
  std::string names, values, options;
  for (const CommandDescription& command : program.commands) {
    names += command.name + " ";
    const std::string all = "words '" + optionNames(command) + "'";
    std::string operand;
    for (const OptionDescription& option : command.options) {
      if (option.isOperand()) operand = bashValues(option);
      if (option.kind == OptionDescription::Kind::Flag) continue;
      for (const std::string& one : option.names)
        values += "    '" + command.name + " " + one + "') " + bashValues(option) + "return ;;\n";
    }
    if (!operand.empty()) options += "    " + command.name + ",[!-]* | " + command.name + ",) " + operand + ";;\n";
    options += "    " + command.name + ",*) " + all + " ;;\n";
  }
  return R"(# bash completion for tarvo, written by the program itself
_tarvo() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} command=${COMP_WORDS[1]}
  words() { mapfile -t COMPREPLY < <(compgen -W "$1" -- "$word"); }
  files() { compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen "$1" -- "$word"); }
  COMPREPLY=()
  if [ "$COMP_CWORD" = 1 ]; then words ')" +
         names + R"(--help --version'; return; fi
  # "--option=value" comes as three words.
  if [ "$word" = = ]; then word=; elif [ "$before" = = ]; then before=${COMP_WORDS[COMP_CWORD-2]}; fi
  case "$command $before" in
)" + values +
         "  esac\n  case $command,$word in\n" + options + R"(  esac
}
complete -F _tarvo tarvo
)";
}

/// Text for a description within single quotes and brackets.
std::string zshText(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '[' || c == ']' || c == ':' || c == '\\') out += '\\';
    out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return out;
}

std::string zshValues(const OptionDescription& option) {
  switch (option.kind) {
    case OptionDescription::Kind::Words:
      return "(" + joined(option.words) + ")";
    case OptionDescription::Kind::File:
      return "_files";
    case OptionDescription::Kind::Folder:
      return "_files -/";
    default:
      return " ";
  }
}

std::string zshCompletion(const ProgramDescription& program) {
  std::string commands, cases;
  for (const CommandDescription& command : program.commands) {
    commands += "      '" + command.name + ":" + zshText(command.meaning) + "'\n";
    cases += "    " + command.name + ") _arguments -s";
    for (const OptionDescription& option : command.options) {
      const std::string value = option.value.empty() ? "" : ":" + zshText(option.value) + ":" + zshValues(option);
      if (option.isOperand()) cases += " \\\n      '" + value + "'";
      for (const std::string& one : option.names)
        cases += " \\\n      '" + one + (!value.empty() && one.starts_with("--") ? "=" : "") + "[" +
                 zshText(option.meaning) + "]" + value + "'";
    }
    cases += " ;;\n";
  }
  return R"(#compdef tarvo
# zsh completion for tarvo, written by the program itself
_tarvo() {
  if (( CURRENT == 2 )); then
    local -a commands=(
)" + commands +
         R"(    )
    _describe command commands
    return
  fi
  local command=$words[2]
  shift words
  (( CURRENT-- ))
  case $command in
)" + cases +
         R"(  esac
}
_tarvo "$@"
)";
}

int document(const fs::path& folder, const ProgramDescription& program) {
  const auto write = [&folder](const std::string& file, const std::string& text) {
    std::error_code failure;
    fs::create_directories((folder / file).parent_path(), failure);
    std::ofstream out(folder / file, std::ios::binary);
    out << text;
    if (!out.flush()) throw Failure{kUnusable, (folder / file).string() + ": cannot be written"};
  };
  write("man/man1/tarvo.1", programPage(program));
  for (const CommandDescription& command : program.commands) {
    write("man/man1/tarvo-" + command.name + ".1", commandPage(command));
    if (command.name == "run") write("man/man5/tarvo.toml.5", configurationPage(command));
  }
  write("bash-completion/completions/tarvo", bashCompletion(program));
  write("zsh/site-functions/_tarvo", zshCompletion(program));
  return kDone;
}

}  // namespace

void addDocumentCommand(CLI::App& app, Run& run) {
  const auto folder = std::make_shared<std::string>();
  CLI::App* command = app.add_subcommand("document", "Writes manual pages and completions of shells");
  command->group("");  // of no use but to those who install the program
  command->add_option("DIR", *folder, "Gets man/, bash-completion/ and zsh/")->required();
  command->callback([folder, &app, &run] { run = [folder, &app] { return document(*folder, describe(app)); }; });
}

}  // namespace tarvo::cli
