#include "platform/urlsession/TransferJournal.h"

#include <errno.h>
#include <unistd.h>

#include <string_view>
#include <system_error>
#include <utility>

#include <tarvo/platform/SystemLog.h>

#include "platform/foundation/Encoding.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

namespace fs = std::filesystem;

/// Room for several of the largest replies; a file without end must not fill the memory.
constexpr std::uintmax_t kMostBytes = std::uintmax_t{256} << 20;
constexpr std::size_t kMostTasks = 10'000;
/// Lines of what is over that may lie in the file besides as many as are needed.
constexpr std::size_t kMostIdleBytes = 64 * 1024;

}  // namespace

std::string fileNameOf(std::string_view text) {
  std::string name = percentEncoded(text, "-_.");
  if (name.starts_with('.')) name.replace(0, 1, "%2E");
  return name;
}

TransferJournal::TransferJournal(const fs::path& directory, std::string identifier)
    : identifier_(std::move(identifier)),
      file_(directory / (fileNameOf(identifier_) + ".jsonl")),
      lock_(directory / (fileNameOf(identifier_) + ".lock")) {
  if (const auto error = createPrivateDirectories(directory)) {
    tell(error->localizedDescription);
    return;
  }
  const auto locked = lock_.tryLock();
  if (!lock_.isHeld()) {
    tell(locked ? "another process has the session" : locked.error().localizedDescription);
    return;
  }
  removeAbandonedWrites(directory);
  MutexLock lock(mutex_);
  read();
}

void TransferJournal::tell(std::string_view what) const {
  NSLog(concat("Background session ", identifier_, ": transfers are not journalled: ", what));
}

void TransferJournal::read() {
  std::error_code error;
  const auto status = fs::symlink_status(file_, error);
  if (status.type() == fs::file_type::not_found) return;
  bool dropped = fs::is_regular_file(status) && fs::file_size(file_, error) > kMostBytes;
  std::string bytes;
  if (!dropped) {
    auto content = fs::is_regular_file(status) ? readFile(file_) : posixError(EINVAL, file_.native());
    if (!content) {
      // It may hold transfers, so it is not replaced.
      tell(content.error().localizedDescription);
      lock_.unlock();
      return;
    }
    bytes = std::move(*content);
  }

  std::string_view rest = bytes;
  for (std::size_t end; (end = rest.find('\n')) != rest.npos; rest.remove_prefix(end + 1))
    dropped |= !apply(rest.substr(0, end));
  dropped |= !rest.empty();
  if (dropped)
    NSLog(concat("Background session ", identifier_, ": damaged lines of its journal are dropped: ", file_.native()));
  fileBytes_ = bytes.size();
  if (dropped || fileBytes_ != liveBytes_) rewrite();
}

bool TransferJournal::apply(std::string_view line) {
  auto note = decode(line);
  if (!note) return false;
  const std::int64_t identifier = note->taskIdentifier;
  const auto known = restored_.find(identifier);
  const bool isKnown = known != restored_.end();
  if (!note->task && !note->outcome) {
    forget(identifier);
    restored_.erase(identifier);
    return true;
  }
  if (!note->task) {
    if (!isKnown || known->second.outcome) return false;
    known->second.outcome = std::move(note->outcome);
    lines_[identifier].ended = line;
    liveBytes_ += line.size() + 1;
    return true;
  }
  // Of two for the same task the one that has ended counts, or it would be sent again.
  const bool counts = isKnown ? note->outcome && !known->second.outcome : restored_.size() < kMostTasks;
  if (!counts) return false;
  forget(identifier);
  restored_.insert_or_assign(identifier, TransferRecord{std::move(*note->task), std::move(note->outcome)});
  lines_[identifier].resumed = line;
  liveBytes_ += line.size() + 1;
  return !isKnown;
}

void TransferJournal::forget(std::int64_t taskIdentifier) {
  const auto found = lines_.find(taskIdentifier);
  if (found == lines_.end()) return;
  const Lines& lines = found->second;
  liveBytes_ -= lines.resumed.size() + 1 + (lines.ended.empty() ? 0 : lines.ended.size() + 1);
  lines_.erase(found);
}

void TransferJournal::rewrite() {
  std::optional<Error> error;
  if (lines_.empty()) {
    if (::unlink(file_.c_str()) != 0 && errno != ENOENT) error = posixError(errno, file_.native());
  } else {
    std::string bytes;
    bytes.reserve(liveBytes_);
    for (const auto& [identifier, lines] : lines_) {
      bytes.append(lines.resumed).push_back('\n');
      if (!lines.ended.empty()) bytes.append(lines.ended).push_back('\n');
    }
    error = writeFileAtomically(file_, bytes, true);
  }
  if (!error) fileBytes_ = liveBytes_;
  noteWriting(error);
}

void TransferJournal::add(std::string_view line) {
  auto size = appendToFile(file_, concat(line, "\n"));
  if (!size) return noteWriting(size.error());
  fileBytes_ += line.size() + 1;
  // What could not be written before is missing, and so is everything when somebody has removed the file.
  if (failing_ || *size != fileBytes_ || fileBytes_ > 2 * liveBytes_ + kMostIdleBytes) rewrite();
}

void TransferJournal::noteWriting(const std::optional<Error>& error) {
  if (std::exchange(failing_, error.has_value()) || !error) return;
  tell(error->localizedDescription);
}

void TransferJournal::putResumed(const URLSessionUploadTask& task) {
  MutexLock lock(mutex_);
  if (!lock_.isHeld()) return;
  forget(task.taskIdentifier);
  std::string& line = lines_[task.taskIdentifier].resumed = encodeResumed(task);
  liveBytes_ += line.size() + 1;
  add(line);
}

void TransferJournal::putEnded(std::int64_t taskIdentifier, const TransferOutcome& outcome) {
  MutexLock lock(mutex_);
  const auto found = lines_.find(taskIdentifier);
  if (found == lines_.end() || !found->second.ended.empty()) return;
  std::string& line = found->second.ended = encodeEnded(taskIdentifier, outcome);
  liveBytes_ += line.size() + 1;
  add(line);
}

void TransferJournal::remove(std::int64_t taskIdentifier) {
  MutexLock lock(mutex_);
  if (!lines_.contains(taskIdentifier)) return;
  forget(taskIdentifier);
  if (lines_.empty()) return rewrite();
  add(encodeOver(taskIdentifier));
}

void TransferJournal::flush() {
  if (!lock_.isHeld()) return;
  const auto error = flushFile(file_);
  // Without a file nothing is under way any more.
  if (!error || error->code == ENOENT) return;
  MutexLock lock(mutex_);
  noteWriting(error);
}

std::vector<TransferRecord> TransferJournal::takeRestored() {
  MutexLock lock(mutex_);
  std::vector<TransferRecord> records;
  for (auto& [identifier, record] : std::exchange(restored_, {})) records.push_back(std::move(record));
  return records;
}

}  // namespace tarvo::platform
