#include "platform/urlsession/TransferJournal.h"

#include <errno.h>
#include <unistd.h>

#include <string_view>
#include <system_error>
#include <utility>

#include <tarvo/platform/SystemLog.h>

#include "platform/foundation/Files.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

namespace fs = std::filesystem;

/// Room for several of the largest replies; a file without end must not fill the memory.
constexpr std::uintmax_t kMostBytes = std::uintmax_t{256} << 20;
constexpr std::size_t kMostTasks = 10'000;

}  // namespace

std::string fileNameOf(std::string_view text) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string name;
  for (const char c : text) {
    const bool isAlphanumeric = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    if (isAlphanumeric || c == '-' || c == '_' || (c == '.' && !name.empty())) {
      name.push_back(c);
    } else {
      const auto byte = static_cast<unsigned char>(c);
      name += {'%', kDigits[byte >> 4], kDigits[byte & 0xfU]};
    }
  }
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

  std::map<std::int64_t, TransferRecord> records;
  std::string_view rest = bytes;
  for (std::size_t end; (end = rest.find('\n')) != rest.npos; rest.remove_prefix(end + 1)) {
    const std::string_view line = rest.substr(0, end);
    auto record = records.size() < kMostTasks ? decode(line) : std::nullopt;
    const std::int64_t identifier = record ? record->task.taskIdentifier : 0;
    const bool isFirst = record && !records.contains(identifier);
    dropped |= !isFirst;
    // Of two for the same task the one that has ended counts, or it would be sent again.
    if (!isFirst && !(record && record->outcome && !records.at(identifier).outcome)) continue;
    records.insert_or_assign(identifier, std::move(*record));
    lines_.insert_or_assign(identifier, std::string(line));
  }
  for (auto& [identifier, record] : records) restored_.push_back(std::move(record));
  if (!dropped && rest.empty()) return;
  NSLog(concat("Background session ", identifier_, ": damaged lines of its journal are dropped: ", file_.native()));
  write();
}

void TransferJournal::write() {
  std::optional<Error> error;
  if (lines_.empty()) {
    if (::unlink(file_.c_str()) != 0 && errno != ENOENT) error = posixError(errno, file_.native());
  } else {
    std::string bytes;
    for (const auto& [identifier, line] : lines_) bytes.append(line).push_back('\n');
    error = writeFileAtomically(file_, bytes, true);
  }
  if (std::exchange(failing_, error.has_value()) || !error) return;
  tell(error->localizedDescription);
}

void TransferJournal::put(const TransferRecord& record) {
  MutexLock lock(mutex_);
  if (!lock_.isHeld()) return;
  lines_.insert_or_assign(record.task.taskIdentifier, encode(record));
  write();
}

void TransferJournal::remove(std::int64_t taskIdentifier) {
  MutexLock lock(mutex_);
  if (lock_.isHeld() && lines_.erase(taskIdentifier) > 0) write();
}

std::vector<TransferRecord> TransferJournal::takeRestored() {
  MutexLock lock(mutex_);
  return std::exchange(restored_, {});
}

}  // namespace tarvo::platform
