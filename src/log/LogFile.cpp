#include "log/LogFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include <tarvo/platform/Environment.h>

#include "log/Log.h"
#include "log/LogFolder.h"
#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/Mutex.h"
#include "settings/Settings.h"

namespace tarvo {
namespace {

/// The opening of the multipart body that the file will be uploaded as.
std::string multipartHeader(std::string_view fileName) {
  return platform::concat("--boundary\r\n", "Content-Disposition: form-data; name=\"file\"; filename=\"", fileName,
                          "\"\r\n", "Content-Type: application/octet-stream\r\n\r\n");
}

enum class Entry { none, regularFile, other };

/// What has that name. Links are not followed: a link or a pipe that has the name of a log is no log.
Entry lookAt(const std::string& file) {
  struct stat status {};
  if (::lstat(file.c_str(), &status) != 0) return Entry::none;
  return S_ISREG(status.st_mode) ? Entry::regularFile : Entry::other;
}

std::atomic<std::uint64_t> linesDropped{0};

/// The path of the file that the latest line went to, kept because the next line mostly goes there too. Threads: any.
class LatestFile {
 public:
  static LatestFile& shared() {
    static auto* latest = new LatestFile;
    return *latest;
  }

  LogFilePath pathFor(std::string_view name) {
    LogFilePath file = cached(name);
    return file && lookAt(*file) == Entry::regularFile ? file : locateOrCreate(name);
  }

  void forget() {
    platform::MutexLock creation(creating_);
    platform::MutexLock lock(mutex_);
    name_.clear();
    file_ = nullptr;
  }

 private:
  LogFilePath cached(std::string_view name) {
    platform::MutexLock lock(mutex_);
    return name == name_ ? file_ : nullptr;
  }

  LogFilePath locateOrCreate(std::string_view name) {
    const auto directories = platform::documentDirectories();
    // The identifier comes from the backend; it names a file only if it is a plain name.
    if (directories.empty() || !platform::isPlainFileName(name)) {
      ++linesDropped;
      return nullptr;
    }
    auto file = std::make_shared<const std::string>((directories.front() / name).native());
    {
      // One thread at a time: writing the header replaces the file, and with it a line that another thread might have
      // appended meanwhile.
      platform::MutexLock lock(creating_);
      if (!Settings::shared().userUUID.get()) return nullptr;  // forgotten meanwhile
      const Entry there = lookAt(*file);
      // Flushed before any line follows: a file that a power cut has left without its header would be refused by the
      // backend.
      const bool isMade = there == Entry::none &&
                          !platform::writeFileAtomically(*file, multipartHeader(name), /*durable=*/true).has_value();
      if (there != Entry::regularFile) {
        if (!isMade) ++linesDropped;  // else the line has become the header
        return nullptr;
      }
    }
    platform::MutexLock lock(mutex_);
    name_ = name;
    file_ = file;
    return file;
  }

  platform::Mutex creating_;
  platform::Mutex mutex_;
  std::string name_ GUARDED_BY(mutex_);
  LogFilePath file_ GUARDED_BY(mutex_);
};

/// Opens the file for this one line and never creates it, so that a file that was deleted meanwhile does not come back
/// without its header. A link that has taken its place is not followed, a pipe is not waited for.
void appendTo(const std::string& file, std::string_view text) {
  const int descriptor = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (descriptor < 0) {
    ++linesDropped;
    return;
  }
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno != EINTR) break;
    if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
  }
  ::close(descriptor);
  if (!text.empty()) ++linesDropped;
}

/// Lines that wait to be written, in order. All that have come since the log's queue last wrote share one buffer and
/// one block of that queue, so that a line costs little more than its characters. Threads: any.
class WaitingLines {
 public:
  static WaitingLines& shared() {
    static auto* waiting = new WaitingLines;
    return *waiting;
  }

  void add(LogFilePath file, std::initializer_list<std::string_view> parts) {
    platform::MutexLock lock(mutex_);
    if (!hasThread_) hasThread_ = Log::serialQueue().start();
    if (!hasThread_ && next_.text.size() >= kMostWithoutThread) {
      ++linesDropped;
      return;
    }
    for (const std::string_view part : parts) next_.text.append(part);
    next_.lines.push_back({std::move(file), next_.text.size()});
    // Queued under the lock, so that a block that the caller queues next comes after its line.
    if (next_.lines.size() == 1) hasThread_ = Log::serialQueue().async([this] { write(); });
  }

 private:
  struct Line {
    LogFilePath file;
    std::size_t end;  ///< in the text
  };
  struct Batch {
    std::string text;
    std::vector<Line> lines;
  };
  /// A buffer that a burst has made larger than this is freed.
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
      if (LogFolder::shared().admits(*line.file, line.end - begin))
        appendTo(*line.file, std::string_view(written_.text).substr(begin, line.end - begin));
      else
        ++linesDropped;
      platform::faultPoint("log: line written");
      begin = line.end;
    }
    if (written_.text.capacity() > kMostKeptBytes) written_ = {};
    written_.text.clear();
    written_.lines.clear();
  }

  platform::Mutex mutex_;
  Batch next_ GUARDED_BY(mutex_);
  bool hasThread_ GUARDED_BY(mutex_) = true;  ///< whether the queue had a thread when it was last asked
  Batch written_;                             ///< used on the queue only
};

}  // namespace

std::uint64_t droppedLogLines() { return linesDropped.load(); }

std::uint64_t logFileBytes() {
  const auto directories = platform::documentDirectories();
  std::uint64_t bytes = 0;
  std::error_code failure;
  if (directories.empty()) return bytes;
  for (std::filesystem::directory_iterator file(directories.front(), failure), end; !failure && file != end;
       file.increment(failure)) {
    struct stat status {};
    const bool isLog = Log::isFileName(file->path().filename().native()) &&
                       ::lstat(file->path().c_str(), &status) == 0 && S_ISREG(status.st_mode);
    if (isLog) bytes += static_cast<std::uint64_t>(status.st_size);
  }
  return bytes;
}

LogFilePath logFileNamed(std::string_view name) { return LatestFile::shared().pathFor(name); }

void appendToLogFile(LogFilePath file, std::initializer_list<std::string_view> parts) {
  WaitingLines::shared().add(std::move(file), parts);
}

void forgetLogFile() { LatestFile::shared().forget(); }

}  // namespace tarvo
