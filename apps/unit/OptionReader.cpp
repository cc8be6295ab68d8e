#include "unit/OptionReader.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string_view>
#include <system_error>

#define TOML_EXCEPTIONS 1
#include <toml++/toml.h>

namespace tarvo::unit {
namespace {

/// Instead of a secret, in the credential.
const std::string kNoSecret = "-";

const std::set<std::string> kReceivers = {"gpsd", "nmea", "geoclue"};

/// The value as a command line would have it; the kinds of a file's values are told apart more strictly.
std::string textOf(const toml::node& node, const CLI::Option& option, const std::string& where) {
  // What may stand in it is behind a colon.
  const std::string described = option.get_type_name(), type = described.substr(0, described.find(':'));
  const bool isFlag = option.get_items_expected_max() == 0, isNumber = type == "N";
  const bool takesNumber = isNumber || type == "SPAN" || type == "BYTES";
  const bool mayLackText = !isFlag && option.get_items_expected_min() == 0;
  if (const auto value = node.value_exact<bool>(); value && (isFlag || (mayLackText && *value)))
    return *value ? "true" : "false";
  if (isNumber ? node.is_integer() : takesNumber && node.is_number()) {
    std::ostringstream text;
    if (const auto whole = node.value_exact<std::int64_t>())
      text << *whole;
    else
      text << std::fixed << node.value<double>().value_or(0);
    return text.str();
  }
  if (const auto value = node.value_exact<std::string>(); value && !isFlag && !isNumber) return *value;
  throw OptionError(where + "has to be " +
                    (isFlag        ? "true or false"
                     : isNumber    ? "a whole number"
                     : takesNumber ? "a number, or a text with its unit"
                     : mayLackText ? "a text, or true"
                                   : "a text"));
}

void take(CLI::Option& option, const std::vector<std::string>& values) {
  option.clear();
  for (const std::string& value : values) option.add_result(value);
  option.run_callback();
}

void readFile(const std::string& file, CLI::App& app) {
  std::error_code unknown;
  if (std::filesystem::is_directory(file, unknown)) throw OptionError(file + ": it is a folder");  // and reads as empty
  toml::table table;
  try {
    table = toml::parse_file(file);
  } catch (const toml::parse_error& error) {
    const auto line = error.source().begin.line;
    throw OptionError(file + (line > 0 ? ":" + std::to_string(line) : "") + ": " + std::string(error.description()));
  }
  for (const auto& [name, node] : table) {
    const std::string key(name.str());
    const std::string where = file + ":" + std::to_string(node.source().begin.line) + ": " + key + ": ";
    CLI::Option* const option = app.get_option_no_throw("--" + key);
    // Both forms of a switch are options; a file has the positive one.
    if (option == nullptr || option->get_name() != "--" + key || key == "help")
      throw OptionError(where + "no such key");
    const std::string text = textOf(node, *option, where);
    try {
      take(*option, {text});
    } catch (const CLI::Error& error) {
      const std::string_view what = error.what(), prefix = "--";
      const std::size_t reason = what.starts_with(prefix) ? what.find(": ") : what.npos;
      throw OptionError(where + std::string(reason == what.npos ? what : what.substr(reason + 2)));
    }
  }
}

void readEnvironment(CLI::App& app) {
  if (std::getenv("STATE_DIRECTORY") != nullptr) take(*app.get_option("--home"), {defaultHome().string()});
  const char* const credentials = std::getenv("CREDENTIALS_DIRECTORY");
  if (credentials == nullptr) return;
  const auto secret = std::filesystem::path(credentials) / "api-secret";
  std::error_code unknown;
  std::string text;
  // Systemd has no credential that may be missing; the service's stands for none.
  if (std::ifstream(secret) >> text && text == kNoSecret) return;
  if (std::filesystem::exists(secret, unknown)) take(*app.get_option("--api-secret-file"), {secret.string()});
}

void check(const UnitOptions& options) {
  if (options.gpsd.has_value() + options.nmea.has_value() + options.geoclue > 1)
    throw OptionError("one of gpsd, nmea and geoclue can be the receiver");
  if (options.mode >= 8 && (options.backend.empty() || options.clientID.empty() || options.apiKey.empty()))
    throw OptionError("modes 8 and 12 upload: they need --backend, --client-id and --api-key, or keys of these names");
}

}  // namespace

OptionReader::OptionReader(CLI::App& command) : command_(command), parsed_(std::make_unique<UnitOptions>()) {
  command.add_option("--config", file_, std::string("A file of these options, key = value [") + kUsualFile + "]")
      ->type_name("FILE");
  addUnitOptions(command, *parsed_);
}

UnitOptions OptionReader::read() const {
  UnitOptions options;
  CLI::App app;
  addUnitOptions(app, options);
  std::error_code unknown;
  if (!file_.empty() || std::filesystem::exists(kUsualFile, unknown)) readFile(file_.empty() ? kUsualFile : file_, app);
  readEnvironment(app);

  const auto given = [&](const std::string& name) { return command_.get_option("--" + name)->count() > 0; };
  // One receiver of the command line takes the place of any other one of the file.
  if (std::any_of(kReceivers.begin(), kReceivers.end(), given)) {
    for (const std::string& receiver : kReceivers) app.get_option("--" + receiver)->clear();
    options.gpsd.reset();
    options.nmea.reset();
    options.geoclue = false;
  }
  for (CLI::Option* option : app.get_options()) {
    const CLI::Option* const parsed = command_.get_option_no_throw(option->get_name());
    if (parsed != nullptr && parsed->count() > 0) take(*option, parsed->results());
    if (option->count() == 0) continue;
    std::string& text = options.given[option->get_name().substr(2)];
    for (const std::string& value : option->results()) text += (text.empty() ? "" : " ") + value;
  }
  check(options);
  if (options.home.empty()) options.home = defaultHome();
  return options;
}

}  // namespace tarvo::unit
