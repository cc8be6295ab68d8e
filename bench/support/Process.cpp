#include "support/Process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace tarvo::bench {

void fail(std::string_view why) {
  std::fprintf(stderr, "%s: %.*s\n", program_invocation_short_name, static_cast<int>(why.size()), why.data());
  std::_Exit(1);
}

void report(std::string_view key, double value) {
  std::printf("%.*s %.9g\n", static_cast<int>(key.size()), key.data(), value);
  std::fflush(stdout);
}

std::int64_t statusNumber(const std::string& process, std::string_view name, const std::string& file) {
  std::ifstream status("/proc/" + process + "/" + file);
  std::string line;
  while (std::getline(status, line))
    if (line.size() > name.size() && line.starts_with(name) && line[name.size()] == ':')
      return std::strtoll(line.c_str() + name.size() + 1, nullptr, 10);
  fail("/proc/" + process + "/" + file + " has no " + std::string(name));
}

double seconds() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

double cpuSeconds() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

std::string neighbour(const std::string& name) {
  return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / name).string();
}

Child::Child(const std::string& name, std::vector<std::string> arguments) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) fail("no pipe");
  std::string path = neighbour(name);
  std::vector<char*> argv{path.data()};
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  if (posix_spawn(&pid_, path.c_str(), &actions, nullptr, argv.data(), environ) != 0) fail("cannot start " + path);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  output_ = ends[0];
}

Child::~Child() {
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
  close(output_);
}

std::string Child::line() {
  std::string text;
  char c = 0;
  while (read(output_, &c, 1) == 1) {
    if (c == '\n') return text;
    text.push_back(c);
  }
  fail("a child process ended early");
}

}  // namespace tarvo::bench
