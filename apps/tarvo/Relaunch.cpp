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
  ::unsetenv(kVariable);
  try {
    return Relaunch{json.at("events"),       json.at("fixes"),   json.at("delivered"),
                    json.at("batches"),      json.at("seconds"), json.at("battery"),
                    json.at("batteryLevel"), json.at("home"),    json.at("sandboxPort")};
  } catch (const nlohmann::json::exception&) {
    throw Failure{kUsage, std::string(kVariable) + " is set by the program alone"};
  }
}

void Relaunch::launch() const {
  const nlohmann::json json = {
      {"events", events},          {"fixes", fixes},     {"delivered", delivered},       {"batches", batches},
      {"seconds", seconds},        {"battery", battery}, {"batteryLevel", batteryLevel}, {"home", home},
      {"sandboxPort", sandboxPort}};
  ::setenv(kVariable, json.dump().c_str(), 1);
  std::vector<std::string> arguments = commandLine();
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  std::cout.flush();
  ::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
  ::execv("/proc/self/exe", pointers.data());
  throw Failure{kUnusable, std::string("the program cannot be launched again: ") + std::strerror(errno)};
}

}  // namespace tarvo::cli
