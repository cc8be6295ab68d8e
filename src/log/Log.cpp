#include "log/Log.h"

#include <atomic>
#include <string>
#include <utility>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/SystemLog.h>
#include <tarvo/platform/UserDefaults.h>

#include "log/LogFile.h"
#include "platform/foundation/DateFormatter.h"
#include "platform/foundation/Encoding.h"
#include "platform/foundation/FatalError.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/Mutex.h"
#include "settings/Names.h"
#include "settings/Settings.h"

namespace tarvo {
namespace {

std::atomic<std::int64_t> logLevel{Log::kOff};

/// The level in the user defaults, 0 for none: looked up when any of them has changed.
std::int64_t configuredLevel() {
  struct Latest {
    platform::Mutex mutex;
    std::uint64_t changes GUARDED_BY(mutex) = 0;
    std::int64_t level GUARDED_BY(mutex) = 0;
  };
  static auto* latest = new Latest;
  // Before the lock: the first use may have something to tell the host's console.
  const platform::UserDefaults& defaults = platform::UserDefaults::standard();
  platform::MutexLock lock(latest->mutex);
  if (const auto changes = defaults.changes(); changes != latest->changes) {
    latest->changes = changes;
    latest->level = defaults.integer(names::kLogLevel);
  }
  return latest->level;
}

/// The name of a level, empty for a level that has none and so writes no line.
std::string_view levelName(std::int64_t level) {
  switch (level) {
    case Log::kVerbose:
      return "VERBOSE";
    case Log::kDebug:
      return "DEBUG";
    case Log::kInfo:
      return "INFO";
    case Log::kWarning:
      return "WARNING";
    case Log::kError:
      return "ERROR";
    default:
      return {};
  }
}

/// When a line is written; it begins with the day that names its file.
/// "YYYY" is the week-based year, as the backend expects it: the last days of December can carry the next year.
std::string currentStamp() {
  static const auto* formatter = new platform::DateFormatter("YYYY-MM-dd'T'HH:mm:ss.SSS'Z'", "UTC");
  return formatter->string(platform::Clock::current()->now());
}

std::string_view dayOf(std::string_view stamp) { return stamp.substr(0, stamp.find('T')); }

}  // namespace

std::int64_t Log::LOGLEVEL() { return logLevel.load(); }
void Log::setLOGLEVEL(std::int64_t level) { logLevel.store(level); }

platform::SerialQueue& Log::serialQueue() {
  static auto* queue = new platform::SerialQueue("tarvo.ios.logQueue");
  return *queue;
}

bool Log::isFileName(std::string_view name) {
  return platform::isPlainFileName(name) && name.starts_with(kFilePrefix) && name.ends_with(kFileExtension);
}

std::string Log::todaysFilePrefix() { return platform::concat(kFilePrefix, "_", dayOf(currentStamp())); }

std::uint64_t Log::linesDropped() { return droppedLogLines(); }
std::uint64_t Log::bytes() { return logFileBytes(); }
void Log::forget() {
  forgetLogFile();
  serialQueue().sync([] {});
}

void Log::debugLog(std::int64_t level, std::initializer_list<platform::Piece> parts) {
  platform::orOutOfMemory([&] {
    platform::TextBuilder message;
    platform::append(message, parts);
    debugLog(level, message.view());
  });
}

void Log::debugLog(std::int64_t level, std::string_view message) {
  if (const auto configured = configuredLevel(); configured != 0) logLevel.store(configured);
  platform::NSLog(message);
  if (logLevel.load() == kOff) return;
  const auto user = Settings::shared().userUUID.get();
  if (!user) return;

  const std::string stamp = currentStamp();
  // The message that opens a day's file is not in it: only the header is.
  auto file = logFileNamed(platform::concat(kFilePrefix, "_", dayOf(stamp), "_", *user, "_IOS.txt"));
  const std::string_view label = levelName(level);
  if (file && !label.empty() && platform::isValidUtf8(message))
    appendToLogFile(std::move(file), {"[[", stamp, "]]:[", label, "]:", message, "\n"});
}

}  // namespace tarvo
