#include <tarvo/platform/Date.h>

#include <algorithm>
#include <charconv>
#include <chrono>

namespace tarvo::platform {
namespace {

/// Takes texts apart from the front; every step answers whether it matched.
class Reader {
 public:
  explicit Reader(std::string_view text) : rest_(text) {}

  bool character(std::string_view choice) {
    if (rest_.empty() || choice.find(rest_.front()) == std::string_view::npos) return false;
    rest_.remove_prefix(1);
    return true;
  }

  bool digits(std::size_t count, int& value) {
    if (rest_.size() < count) return false;
    value = 0;
    for (const char c : rest_.substr(0, count)) {
      if (c < '0' || c > '9') return false;
      value = value * 10 + (c - '0');
    }
    rest_.remove_prefix(count);
    return true;
  }

  /// ".25" when there is one.
  bool fraction(double& value) {
    if (rest_.empty() || rest_.front() != '.') return true;
    const std::size_t end = std::min(rest_.find_first_not_of("0123456789", 1), rest_.size());
    const auto read = std::from_chars(rest_.data(), rest_.data() + end, value);
    if (end < 2 || read.ec != std::errc()) return false;
    rest_.remove_prefix(end);
    return true;
  }

  bool zone(int& minutesEast) {
    minutesEast = 0;
    if (rest_.empty() || character("Z")) return true;
    const int sign = rest_.front() == '-' ? -1 : 1;
    int hours = 0;
    int minutes = 0;
    if (!character("+-") || !digits(2, hours)) return false;
    if (!rest_.empty()) {
      character(":");
      if (!digits(2, minutes)) return false;
    }
    minutesEast = sign * (hours * 60 + minutes);
    return hours < 24 && minutes < 60;
  }

  bool atEnd() const { return rest_.empty(); }

 private:
  std::string_view rest_;
};

}  // namespace

std::optional<Date> parseTimestamp(std::string_view text) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, minutesEast = 0;
  double fraction = 0;
  Reader reader(text);
  if (!reader.digits(4, year) || !reader.character("-") || !reader.digits(2, month) || !reader.character("-") ||
      !reader.digits(2, day) || !reader.character("T ") || !reader.digits(2, hour) || !reader.character(":") ||
      !reader.digits(2, minute) || !reader.character(":") || !reader.digits(2, second) || !reader.fraction(fraction) ||
      !reader.zone(minutesEast) || !reader.atEnd())
    return std::nullopt;
  const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                                         std::chrono::day(static_cast<unsigned>(day))};
  // 60 is a leap second.
  if (!date.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  const std::chrono::seconds whole = std::chrono::sys_days(date).time_since_epoch() + std::chrono::hours(hour) +
                                     std::chrono::minutes(minute - minutesEast) + std::chrono::seconds(second);
  return dateSince1970(static_cast<double>(whole.count()) + fraction);
}

}  // namespace tarvo::platform
