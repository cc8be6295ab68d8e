#include "log/Log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/SystemLog.h>
#include <tarvo/platform/UserDefaults.h>

#include "platform/foundation/DateFormatter.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/UserDefaultsChanges.h"
#include "platform/foundation/Utf8.h"
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
  if (const auto changes = platform::userDefaultsChanges(); changes != latest->changes) {
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

/// The opening of the multipart body that the file will be uploaded as.
std::string multipartHeader(std::string_view fileName) {
  return platform::concat("--boundary\r\n", "Content-Disposition: form-data; name=\"file\"; filename=\"", fileName,
                          "\"\r\n", "Content-Type: application/octet-stream\r\n\r\n");
}

using FileName = std::shared_ptr<const std::string>;

enum class Found { nothing, file, somethingElse };

/// Pipes and links that bear the name of a log are nobody's log: they are neither followed nor replaced.
Found lookAt(const std::string& file) {
  struct stat status {};
  if (::lstat(file.c_str(), &status) != 0) return Found::nothing;
  return S_ISREG(status.st_mode) ? Found::file : Found::somethingElse;
}

/// Where the latest line went: most lines go to the file of the one before. Threads: any.
class LatestFile {
 public:
  static LatestFile& shared() {
    static auto* latest = new LatestFile;
    return *latest;
  }

  /// The file of that name, which exists; absent when there is none to write to, or only now, with its header.
  FileName openFor(std::string_view name) {
    FileName file = known(name);
    return file && lookAt(*file) == Found::file ? file : found(name);
  }

 private:
  FileName known(std::string_view name) {
    platform::MutexLock lock(mutex_);
    return name == name_ ? file_ : nullptr;
  }

  FileName found(std::string_view name) {
    const auto directories = platform::documentDirectories();
    // The identifier comes from the backend; it names a file only if it is a plain name.
    if (directories.empty() || !platform::isPlainFileName(name)) return nullptr;
    auto file = std::make_shared<const std::string>((directories.front() / name).native());
    {
      // One at a time: the header takes the place of the file, and must not take away another thread's first line.
      platform::MutexLock lock(creating_);
      const Found there = lookAt(*file);
      // On the disk before lines follow, or a power cut leaves lines without their header, which no backend takes.
      if (there == Found::nothing) (void)platform::writeFileAtomically(*file, multipartHeader(name), /*durable=*/true);
      if (there != Found::file) return nullptr;
    }
    platform::MutexLock lock(mutex_);
    name_ = name;
    file_ = file;
    return file;
  }

  platform::Mutex creating_;
  platform::Mutex mutex_;
  std::string name_ GUARDED_BY(mutex_);
  FileName file_ GUARDED_BY(mutex_);
};

/// Opened anew for each line, and never created: a file that was deleted meanwhile does not come back headless. Neither
/// a link nor a pipe that has taken its place is followed or waited for.
void appendTo(const std::string& file, std::string_view text) {
  const int descriptor = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (descriptor < 0) return;
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno != EINTR) break;
    if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
  }
  ::close(descriptor);
}

/// Lines on their way to their files, in order. They share one buffer and one block of the log's queue, so that a line
/// costs little more than its characters. Threads: any.
class WaitingLines {
 public:
  static WaitingLines& shared() {
    static auto* waiting = new WaitingLines;
    return *waiting;
  }

  void add(FileName file, std::initializer_list<std::string_view> parts) {
    platform::MutexLock lock(mutex_);
    if (!hasThread_) hasThread_ = Log::serialQueue().start();
    if (!hasThread_ && next_.text.size() >= kMostWithoutThread) return;
    for (const std::string_view part : parts) next_.text.append(part);
    next_.lines.push_back({std::move(file), next_.text.size()});
    // Under the lock: what the caller queues behind its line must find it written.
    if (next_.lines.size() == 1) hasThread_ = Log::serialQueue().async([this] { write(); });
  }

 private:
  struct Line {
    FileName file;
    std::size_t end;  ///< in the text
  };
  struct Batch {
    std::string text;
    std::vector<Line> lines;
  };
  /// More is given back after a burst.
  static constexpr std::size_t kMostKeptBytes = 64 * 1024;
  /// Lines beyond it are dropped while the queue has no thread to write them.
  static constexpr std::size_t kMostWithoutThread = 256 * 1024;

  void write() {
    {
      platform::MutexLock lock(mutex_);
      std::swap(next_, written_);
    }
    std::size_t begin = 0;
    for (const Line& line : written_.lines) {
      appendTo(*line.file, std::string_view(written_.text).substr(begin, line.end - begin));
      begin = line.end;
    }
    if (written_.text.capacity() > kMostKeptBytes) written_ = {};
    written_.text.clear();
    written_.lines.clear();
  }

  platform::Mutex mutex_;
  Batch next_ GUARDED_BY(mutex_);
  bool hasThread_ GUARDED_BY(mutex_) = true;  ///< the queue, as far as is known
  Batch written_;                             ///< the queue's alone
};

}  // namespace

std::int64_t Log::LOGLEVEL() { return logLevel.load(); }
void Log::setLOGLEVEL(std::int64_t level) { logLevel.store(level); }

platform::SerialQueue& Log::serialQueue() {
  static auto* queue = new platform::SerialQueue("tarvo.ios.logQueue");
  return *queue;
}

void Log::append(std::shared_ptr<const std::string> file, std::string_view text) {
  WaitingLines::shared().add(std::move(file), {text});
}

bool Log::isFileName(std::string_view name) {
  return platform::isPlainFileName(name) && name.starts_with(kFilePrefix) && name.ends_with(kFileExtension);
}

std::string Log::todaysFilePrefix() { return platform::concat(kFilePrefix, "_", dayOf(currentStamp())); }

void Log::debugLog(std::int64_t level, std::initializer_list<platform::Piece> parts) {
  platform::TextBuilder message;
  platform::appendPieces(message, parts);
  debugLog(level, message.view());
}

void Log::debugLog(std::int64_t level, std::string_view message) {
  if (const auto configured = configuredLevel(); configured != 0) logLevel.store(configured);
  platform::NSLog(message);
  if (logLevel.load() == kOff) return;
  const auto user = Settings::shared().userUUID.get();
  if (!user) return;

  const std::string stamp = currentStamp();
  // The message that opens a day's file is not in it: only the header is.
  auto file = LatestFile::shared().openFor(platform::concat(kFilePrefix, "_", dayOf(stamp), "_", *user, "_IOS.txt"));
  const std::string_view label = levelName(level);
  if (file && !label.empty() && platform::isValidUtf8(message))
    WaitingLines::shared().add(std::move(file), {"[[", stamp, "]]:[", label, "]:", message, "\n"});
}

}  // namespace tarvo
