#include "log/LogFolder.h"

#include <algorithm>
#include <charconv>
#include <system_error>
#include <utility>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Environment.h>

#include "log/Log.h"
#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/Guarded.h"
#include "settings/Settings.h"

namespace tarvo {
namespace {

namespace fs = std::filesystem;
using platform::Date;
using platform::Seconds;

constexpr Seconds kBetweenLooks{60};
constexpr Seconds kDay{86400};

platform::Guarded<LogFolder::InUse>& inUse() {
  static auto* asked = new platform::Guarded<LogFolder::InUse>;
  return *asked;
}

/// "TarvoLog_2024-06-15…": the beginning of that day. Names carry the week-based year, so that the last days of a
/// December may bear the next one's: a day to come is taken for one of a year ago.
std::optional<Date> dayIn(std::string_view name, Date now) {
  name.remove_prefix(std::min(name.size(), Log::kFilePrefix.size() + 1));
  int parts[3] = {};
  for (int& part : parts) {
    const auto [end, failure] = std::from_chars(name.data(), name.data() + name.size(), part);
    if (failure != std::errc()) return std::nullopt;
    name.remove_prefix(static_cast<std::size_t>(end - name.data()));
    if (name.starts_with('-')) name.remove_prefix(1);
  }
  const auto day = [&](int year) {
    return std::chrono::year(year) / std::chrono::month(static_cast<unsigned>(parts[1])) /
           std::chrono::day(static_cast<unsigned>(parts[2]));
  };
  if (parts[1] < 0 || parts[2] < 0 || !day(parts[0]).ok()) return std::nullopt;
  const Date named(std::chrono::sys_days(day(parts[0])));
  return named > now ? Date(std::chrono::sys_days(day(parts[0] - 1))) : named;
}

/// That of a file whose name tells no day.
Date lastChangeOf(const fs::directory_entry& file) {
  std::error_code failure;
  const auto time = file.last_write_time(failure);
  return failure ? platform::distantPast() : Date(std::chrono::file_clock::to_sys(time).time_since_epoch());
}

}  // namespace

LogFolder& LogFolder::shared() {
  static auto* folder = new LogFolder;
  return *folder;
}

void LogFolder::setInUse(InUse asked) { inUse().set(std::move(asked)); }

bool LogFolder::admits(const std::string& file, std::size_t bytes) {
  const StorageLimits limits = Settings::shared().storageLimits.get();
  if (!limits.logAge && !limits.logBytes) return true;
  std::string today = Log::todaysFilePrefix();
  const Seconds now = platform::Clock::current()->monotonic();
  const bool isNew = limits != limits_ || today != today_;
  limits_ = limits;
  today_ = std::move(today);
  if (isNew || (!hasRoomFor(bytes) && (!fullAt_ || now - *fullAt_ >= kBetweenLooks))) look(bytes);
  // What closes the body of an upload is no line, and always fits.
  if (!hasRoomFor(bytes) && fs::path(file).filename().native().starts_with(today_)) return false;
  bytes_ += bytes;
  return true;
}

void LogFolder::look(std::size_t bytes) {
  auto files = filesOfEarlierDays();
  const Date now = platform::Clock::current()->now();
  const auto asked = inUse().get();
  for (const File& file : files) {
    const bool isTooOld = limits_.logAge && file.day + kDay + std::max(*limits_.logAge, Seconds(0)) <= now;
    if ((!isTooOld && hasRoomFor(bytes)) || (asked && asked(file.path))) continue;
    platform::faultPoint("retention: log file");
    std::error_code failure;
    if (fs::remove(file.path, failure) && !failure) bytes_ -= file.bytes;
  }
  fullAt_.reset();
  if (!hasRoomFor(bytes)) fullAt_ = platform::Clock::current()->monotonic();
}

/// The oldest first. Counts the bytes of today's too.
std::vector<LogFolder::File> LogFolder::filesOfEarlierDays() {
  std::vector<File> files;
  bytes_ = 0;
  const auto directories = platform::documentDirectories();
  if (directories.empty()) return files;
  const Date now = platform::Clock::current()->now();
  std::error_code error;
  for (fs::directory_iterator entry(directories.front(), error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    std::error_code unknown;
    if (!Log::isFileName(name) || !fs::is_regular_file(entry->symlink_status(unknown))) continue;
    const std::uintmax_t bytes = entry->file_size(unknown);
    if (unknown) continue;
    bytes_ += bytes;
    if (!name.starts_with(today_))
      files.push_back({entry->path(), dayIn(name, now).value_or(lastChangeOf(*entry)), bytes});
  }
  std::sort(files.begin(), files.end(),
            [](const File& a, const File& b) { return a.day != b.day ? a.day < b.day : a.path < b.path; });
  return files;
}

}  // namespace tarvo
