#include "Relaunch.h"

#include <linux/close_range.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <vector>

#include "Failure.h"

namespace tarvo::cli {
namespace {

constexpr const char* kVariable = "TARVO_REPLAY_RELAUNCH";
constexpr const char* kHomeVariable = "TARVO_REPLAY_HOME";  // on its own: a path need not be UTF-8

std::string concatenated(const std::string& name, const std::string& value) { return name + "=" + value; }

std::vector<std::string> commandLine() {
  std::ifstream file("/proc/self/cmdline", std::ios::binary);
  std::vector<std::string> arguments;
  for (std::string argument; std::getline(file, argument, '\0');) arguments.push_back(argument);
  return arguments;
}

}  // namespace

std::optional<Relaunch> Relaunch::take() {
  const char* text = std::getenv(kVariable);
  if (text == nullptr) return std::nullopt;
  const auto json = nlohmann::json::parse(text, nullptr, false);
  const char* const home = std::getenv(kHomeVariable);
  ::unsetenv(kVariable);
  try {
    return Relaunch{json.at("events"),           json.at("fixes"),      json.at("delivered"), json.at("batches"),
                    json.at("unsaved"),          json.at("seconds"),    json.at("battery"),   json.at("batteryLevel"),
                    home != nullptr ? home : "", json.at("sandboxPort")};
  } catch (const nlohmann::json::exception&) {
    throw Failure{kUsage, std::string(kVariable) + " is set by the program alone"};
  }
}

void Relaunch::launch() const {
  const nlohmann::json json = {
      {"events", events},          {"fixes", fixes},     {"delivered", delivered}, {"batches", batches},
      {"unsaved", unsaved},        {"seconds", seconds}, {"battery", battery},     {"batteryLevel", batteryLevel},
      {"sandboxPort", sandboxPort}};
  std::vector<std::string> arguments = commandLine();
  // Not through setenv: other threads may be reading the environment.
  std::vector<std::string> variables = {concatenated(kVariable, json.dump()), concatenated(kHomeVariable, home)};
  std::vector<char*> environment;
  for (char** variable = ::environ; *variable != nullptr; ++variable) environment.push_back(*variable);
  for (std::string& variable : variables) environment.push_back(variable.data());
  environment.push_back(nullptr);
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  std::cout.flush();
  ::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
  ::execve("/proc/self/exe", pointers.data(), environment.data());
  throw Failure{kUnusable, std::string("the program cannot be launched again: ") + std::strerror(errno)};
}

}  // namespace tarvo::cli
