#include "log/Log.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <utility>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/SystemLog.h>
#include <tarvo/platform/UserDefaults.h>

#include "log/Utf8.h"
#include "platform/foundation/DateFormatter.h"
#include "platform/foundation/Files.h"
#include "settings/Names.h"
#include "settings/Settings.h"

namespace tarvo {
namespace {

using platform::DateFormatter;

std::atomic<std::int64_t> logLevel{Log::kOff};

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

// "YYYY" is the week-based year, as the backend expects it: the last days of December can carry the next year.
const DateFormatter& dayFormatter() {
  static const DateFormatter* formatter = new DateFormatter("YYYY-MM-dd", "UTC");
  return *formatter;
}

const DateFormatter& lineFormatter() {
  static const DateFormatter* formatter = new DateFormatter("YYYY-MM-dd'T'HH:mm:ss.SSS'Z'", "UTC");
  return *formatter;
}

/// The opening of the multipart body that the file will be uploaded as.
std::string multipartHeader(std::string_view fileName) {
  return platform::concat("--boundary\r\n", "Content-Disposition: form-data; name=\"file\"; filename=\"", fileName,
                          "\"\r\n", "Content-Type: application/octet-stream\r\n\r\n");
}

/// Opened anew for each line, and never created: a file that was deleted meanwhile does not come back headless.
void appendTo(const std::filesystem::path& file, std::string_view text) {
  const int descriptor = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (descriptor < 0) return;
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno != EINTR) break;
    if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
  }
  ::close(descriptor);
}

}  // namespace

std::int64_t Log::LOGLEVEL() { return logLevel.load(); }
void Log::setLOGLEVEL(std::int64_t level) { logLevel.store(level); }

platform::SerialQueue& Log::serialQueue() {
  static auto* queue = new platform::SerialQueue("tarvo.ios.logQueue");
  return *queue;
}

void Log::append(const std::filesystem::path& file, std::string text) {
  serialQueue().async([file, text = std::move(text)] { appendTo(file, text); });
}

std::string Log::todaysFilePrefix() {
  return platform::concat(kFilePrefix, "_", dayFormatter().string(platform::Clock::current()->now()));
}

void Log::debugLog(std::int64_t level, std::initializer_list<platform::Piece> parts) {
  debugLog(level, platform::concatenated(parts));
}

void Log::debugLog(std::int64_t level, std::string_view message) {
  if (const auto configured = platform::UserDefaults::standard().integer(names::kLogLevel); configured != 0)
    logLevel.store(configured);
  platform::NSLog(message);
  if (logLevel.load() == kOff) return;
  const auto user = Settings::shared().userUUID();
  if (!user) return;

  const platform::Date now = platform::Clock::current()->now();
  const std::string name = platform::concat(kFilePrefix, "_", dayFormatter().string(now), "_", *user, "_IOS.txt");
  const auto directories = platform::documentDirectories();
  // The identifier comes from the backend; it names a file only if it is a plain name.
  if (directories.empty() || !platform::isPlainFileName(name)) return;
  const std::filesystem::path file = directories.front() / name;
  if (std::error_code error; !std::filesystem::exists(file, error)) {
    // The message that opens a day's file is not in it: only the header is.
    (void)platform::writeFileAtomically(file, multipartHeader(name), /*durable=*/false);
    return;
  }
  std::string line;
  if (const std::string_view label = levelName(level); !label.empty())
    line = platform::concat("[[", lineFormatter().string(now), "]]:[", label, "]:", message, "\n");
  if (line.empty() || !isValidUtf8(line)) return;
  append(file, std::move(line));
}

}  // namespace tarvo
