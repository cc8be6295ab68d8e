#include <fcntl.h>
#include <unistd.h>

#include <string>

#include <tarvo/platform/SystemLog.h>
#include <tarvo/platform/UserDefaults.h>

#include "log/Log.h"
#include "settings/Names.h"
#include "settings/Settings.h"
#include "support/Process.h"
#include "support/Samples.h"
#include "support/Sdk.h"
#include "works/Pairs.h"

namespace tarvo::bench {
namespace {

// A hundred bytes, as the lines of the intake have.
constexpr std::string_view kMessage =
    "Locations:addLocation [loc] id:123456 lon:11.576124 lat:48.137154 event:loc_changed mainThread:";

/// The file that lines went to last, the only one in the folder.
std::filesystem::path logFile() {
  for (const auto& entry : std::filesystem::directory_iterator(limitStore().parent_path() / "Documents"))
    if (entry.path().extension() == Log::kFileExtension) return entry.path();
  fail("there is no log file");
}

void logLines(std::int64_t items) {
  for (; items > 0; --items) Log::debug(kMessage, mainThread());
}

void sdkFileLines(std::int64_t items) {
  Settings::shared().userUUID.set(std::string(kUser));
  Log::setLOGLEVEL(1);
  static const bool opened = [] {
    Log::debug("creates the day's file");
    return true;
  }();
  if (!opened) return;
  const auto before = std::filesystem::file_size(logFile());
  logLines(items);
  Log::serialQueue().sync([] {});
  if (std::filesystem::file_size(logFile()) < before + kMessage.size() * static_cast<std::size_t>(items))
    fail("log lines are missing");
  Log::setLOGLEVEL(Log::kOff);
}

/// Opens, writes and closes for every line, as the SDK must.
void limitFileLines(std::int64_t items) {
  static const std::string line = "[[2024-06-15T10:00:01.250Z]]:[DEBUG]:" + std::string(kMessage) + "true\n";
  static const std::string file = limitStore().parent_path() / "limit.txt";
  for (; items > 0; --items) {
    const int descriptor = open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (write(descriptor, line.data(), line.size()) != static_cast<ssize_t>(line.size())) fail("no log line");
    close(descriptor);
  }
}

void sdkConsoleLines(std::int64_t items) {
  Log::setLOGLEVEL(Log::kOff);
  const std::uint64_t before = consoleLines();
  logLines(items);
  if (consoleLines() != before + static_cast<std::uint64_t>(items)) fail("console lines are missing");
}

/// The console alone.
void limitConsoleLines(std::int64_t items) {
  static const auto* sink = new platform::SystemLogSink(consoleSink());
  for (; items > 0; --items) (*sink)(kMessage);
}

}  // namespace

void addLogWorks(std::vector<Work>& works) {
  works.push_back({"logfile.sdk", Work::Timing::rate, 20000, sdkFileLines});
  works.push_back({"logfile.limit", Work::Timing::rate, 20000, limitFileLines});
  works.push_back({"logoff.sdk", Work::Timing::cpu, 100000, sdkConsoleLines});
  works.push_back({"logoff.limit", Work::Timing::cpu, 100000, limitConsoleLines});
}

}  // namespace tarvo::bench
