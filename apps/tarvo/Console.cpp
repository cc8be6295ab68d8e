#include "Console.h"

#include <signal.h>

#include <atomic>
#include <cstdio>
#include <iostream>
#include <utility>

#include <tarvo/platform/SystemLog.h>

namespace tarvo::cli {
namespace {

std::atomic<bool> signalled = false;
static_assert(std::atomic<bool>::is_always_lock_free);

void remember(int) { signalled = true; }

}  // namespace

void installConsole(bool shown, std::function<void(std::string_view)> watcher) {
  platform::setSystemLogSink([shown, watcher = std::move(watcher)](std::string_view message) {
    if (watcher) watcher(message);
    if (!shown && !message.starts_with("Fatal error: ")) return;
    const std::string line = std::string(message) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
  });
}

void print(const std::string& text) { std::cout << text << std::endl; }

void note(const std::string& text) { std::cerr << "tarvo: " + text + "\n"; }

void watchInterrupts() {
  struct sigaction action = {};
  action.sa_handler = remember;
  action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
  for (const int signal : {SIGINT, SIGTERM}) ::sigaction(signal, &action, nullptr);
}

bool interrupted() { return signalled; }

}  // namespace tarvo::cli
