#include "Description.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <sstream>

namespace tarvo::cli {
namespace {

std::vector<std::string> split(const std::string& text, const std::string& separator) {
  std::vector<std::string> parts;
  std::size_t start = 0, end = 0;
  for (; (end = text.find(separator, start)) != std::string::npos; start = end + separator.size())
    parts.push_back(text.substr(start, end - start));
  parts.push_back(text.substr(start));
  return parts;
}

std::vector<std::string> namesOf(const std::set<CLI::Option*>& options) {
  std::vector<std::string> names;
  for (const CLI::Option* option : options) names.push_back(option->get_name());
  std::sort(names.begin(), names.end());
  return names;
}

/// The type's own name, without what its checks add to it; that becomes words or a range.
void readType(CLI::Option& option, OptionDescription& into) {
  into.value = option.get_type_name();
  for (int i = 0;; ++i) {
    std::string check;
    try {
      check = option.get_validator(i)->get_description();
    } catch (const CLI::OptionNotFound&) {
      return;  // nothing else tells how many there are
    }
    if (check.empty()) continue;
    const std::size_t added = into.value.rfind(":" + check);
    if (added != std::string::npos) into.value.erase(added, check.size() + 1);
    if (check.starts_with('{') && check.ends_with('}'))
      into.words = split(check.substr(1, check.size() - 2), ",");
    else
      into.range = check;
  }
}

OptionDescription describe(CLI::Option& option) {
  using Kind = OptionDescription::Kind;
  OptionDescription out;
  for (const std::string& name : option.get_snames()) out.names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) out.names.push_back("--" + name);
  out.meaning = option.get_description();
  out.standard = option.get_default_str();
  out.environment = option.get_envname();
  out.needs = namesOf(option.get_needs());
  out.excludes = namesOf(option.get_excludes());
  out.isRequired = option.get_required();
  if (option.get_expected_max() == 0) return out;
  out.mayLackValue = option.get_expected_min() == 0;
  readType(option, out);
  if (out.value.empty() || out.isOperand()) out.value = out.isOperand() ? option.get_name(true) : "TEXT";
  const auto says = [&out](const char* word) { return out.value.find(word) != std::string::npos; };
  if (!out.words.empty())
    out.kind = Kind::Words;
  else if (says("DIR"))
    out.kind = Kind::Folder;
  else if (says("FILE") || says("PATH") || out.isOperand())
    out.kind = Kind::File;
  else
    out.kind = Kind::Text;
  return out;
}

/// A line that ends a sentence ends a paragraph too.
void readFooter(const std::string& footer, CommandDescription& into) {
  static const std::string kStatuses = "Exit status: ";
  const std::size_t statuses = footer.find(kStatuses);
  std::istringstream lines(footer.substr(0, statuses));
  std::string paragraph;
  for (std::string line; std::getline(lines, line);) {
    paragraph += (paragraph.empty() ? "" : " ") + line;
    if (!line.ends_with('.')) continue;
    into.notes.push_back(paragraph);
    paragraph.clear();
  }
  if (!paragraph.empty()) into.notes.push_back(paragraph);
  if (statuses == std::string::npos) return;
  std::string rest = footer.substr(statuses + kStatuses.size());
  std::replace(rest.begin(), rest.end(), '\n', ' ');
  if (rest.ends_with('.')) rest.pop_back();
  for (const std::string& part : split(rest, "; ")) {
    const std::size_t space = part.find(' ');
    if (std::isdigit(static_cast<unsigned char>(part[0])) != 0 && space != std::string::npos)
      into.statuses.emplace_back(part.substr(0, space), part.substr(space + 1));
    else if (!into.statuses.empty())
      into.statuses.back().second += "; " + part;
  }
}

CommandDescription describeCommand(CLI::App& command) {
  CommandDescription out;
  out.name = command.get_name();
  out.meaning = command.get_description();
  for (CLI::Option* option : command.get_options()) out.options.push_back(describe(*option));
  readFooter(command.get_footer(), out);
  return out;
}

}  // namespace

ProgramDescription describe(CLI::App& app) {
  ProgramDescription out;
  out.meaning = app.get_description();
  for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; }))
    if (!command->get_group().empty()) out.commands.push_back(describeCommand(*command));
  return out;
}

}  // namespace tarvo::cli
