#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <tarvo/platform/Date.h>

#include "platform/foundation/Text.h"

namespace tarvo::platform {

/// Formats and parses dates by a pattern of Unicode TR 35, locale en_US_POSIX, Gregorian calendar, strict.
///
/// "YYYY" formats the week-based year, which is not the calendar's around the New Year, but parses the year as it is
/// written. Fractions of the last unit are cut, never rounded.
/// Threads: any; each object guards its own formatter.
class DateFormatter {
 public:
  /// Without a zone the device's own is used.
  explicit DateFormatter(std::string_view pattern, std::optional<std::string_view> timeZone = std::nullopt);
  ~DateFormatter();

  void setTimeZone(std::optional<std::string_view> timeZone);
  std::string string(Date date) const;
  /// Absent when the text does not match to its end.
  std::optional<Date> date(std::string_view text) const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// A date to be printed as `4/1/09, 12:40:22 PM Coordinated Universal Time`: short date and full time in the device's
/// locale and zone. Dates within the same minute as the one before are cheap. Threads: any.
struct LocalizedTime {
  Date date;
};
void append(TextBuilder& out, const LocalizedTime& time);

}  // namespace tarvo::platform
