#include "platform/foundation/DateFormatter.h"

#include <unicode/ucal.h>
#include <unicode/uchar.h>
#include <unicode/udat.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/Mutex.h"

namespace tarvo::platform {
namespace {

constexpr const char* kLocale = "en_US_POSIX@calendar=gregorian";
// Dates are short; what a backend sends is not worth more work than this.
constexpr std::size_t kMaxParsedBytes = 1024;

struct CloseFormat {
  void operator()(UDateFormat* format) const { udat_close(format); }
};

struct CloseCalendar {
  void operator()(UCalendar* calendar) const { ucal_close(calendar); }
};
using Calendar = std::unique_ptr<UCalendar, CloseCalendar>;

/// With a calendar of its own: given an instant alone ICU copies the format's each time, and reads through a null
/// pointer when there is no memory for the copy's time zone.
struct Format {
  std::unique_ptr<UDateFormat, CloseFormat> format;
  Calendar calendar;
};

std::u16string utf16(std::string_view text) {
  // No text has more UTF-16 units than UTF-8 bytes.
  std::u16string out(text.size(), u'\0');
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8WithSub(out.data(), static_cast<int32_t>(out.size()), &length, text.data(),
                       static_cast<int32_t>(text.size()), 0xFFFD, nullptr, &status);
  out.resize(static_cast<std::size_t>(length));
  return out;
}

std::string utf8(std::u16string_view text) {
  std::string out(3 * text.size(), '\0');
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strToUTF8WithSub(out.data(), static_cast<int32_t>(out.size()), &length, text.data(),
                     static_cast<int32_t>(text.size()), 0xFFFD, nullptr, &status);
  out.resize(static_cast<std::size_t>(length));
  return out;
}

// ICU takes milliseconds as a double and cuts downwards. Whole milliseconds that were divided by 1000 do not all come
// back by multiplication (those of 2038 do not), and must not fall one short.
UDate milliseconds(Date date) {
  const double seconds = secondsSince1970(date);
  const double whole = std::round(seconds * 1000);
  return whole / 1000 == seconds ? whole : std::floor(seconds * 1000);
}

/// Empty for what is no instant. `field`: which field to look for, and where it was found.
std::u16string format(const Format& with, UDate instant, UFieldPosition* field = nullptr) {
  if (!std::isfinite(instant)) return {};
  std::u16string out(128, u'\0');
  for (;;) {
    UErrorCode status = U_ZERO_ERROR;
    ucal_setMillis(with.calendar.get(), instant, &status);
    const int32_t length = udat_formatCalendar(with.format.get(), with.calendar.get(), out.data(),
                                               static_cast<int32_t>(out.size()), field, &status);
    const bool tooShort = status == U_BUFFER_OVERFLOW_ERROR;
    if (U_FAILURE(status) && !tooShort) return {};
    out.resize(static_cast<std::size_t>(length));
    if (!tooShort) return out;
  }
}

Format open(std::u16string_view pattern, std::optional<std::string_view> timeZone) {
  const std::u16string zone = utf16(timeZone.value_or(""));
  const char16_t* const name = timeZone ? zone.data() : nullptr;
  const auto length = static_cast<int32_t>(zone.size());
  UErrorCode status = U_ZERO_ERROR;
  Format opened;
  opened.format.reset(udat_open(UDAT_PATTERN, UDAT_PATTERN, kLocale, name, length, pattern.data(),
                                static_cast<int32_t>(pattern.size()), &status));
  opened.calendar.reset(ucal_open(name, length, kLocale, UCAL_DEFAULT, &status));
  if (U_FAILURE(status)) fatalError(std::string("date formatter: ") + u_errorName(status));
  udat_setLenient(opened.format.get(), false);
  return opened;
}

/// ICU divides a fraction of a second by 32 bits of a power of ten: wrong from 13 digits on, and by zero, which stops
/// the process, from 35.
bool hasLongNumber(const std::u16string& text) {
  const auto size = static_cast<int32_t>(text.size());
  int digits = 0;
  for (int32_t at = 0; at < size && digits <= 12;) {
    UChar32 c = 0;
    U16_NEXT(text.data(), at, size, c);
    digits = u_isdigit(c) ? digits + 1 : 0;
  }
  return digits > 12;
}

}  // namespace

struct DateFormatter::State {
  explicit State(std::string_view unicodePattern) : pattern(utf16(unicodePattern)) {}

  const std::u16string pattern;
  Mutex mutex;
  Format format GUARDED_BY(mutex);
  // The latest text: what is told at the same instant, as many log lines are, is not formatted again.
  UDate instant GUARDED_BY(mutex) = std::nan("");
  std::string text GUARDED_BY(mutex);
};

DateFormatter::DateFormatter(std::string_view pattern, std::optional<std::string_view> timeZone)
    : state_(std::make_unique<State>(pattern)) {
  setTimeZone(timeZone);
}

DateFormatter::~DateFormatter() = default;

void DateFormatter::setTimeZone(std::optional<std::string_view> timeZone) {
  Format opened = open(state_->pattern, timeZone);
  MutexLock lock(state_->mutex);
  state_->format = std::move(opened);
  state_->instant = std::nan("");
}

std::string DateFormatter::string(Date date) const {
  const UDate instant = milliseconds(date);
  MutexLock lock(state_->mutex);
  if (instant != state_->instant) {
    state_->text = utf8(format(state_->format, instant));
    state_->instant = instant;
  }
  return state_->text;
}

std::optional<Date> DateFormatter::date(std::string_view text) const {
  if (text.size() > kMaxParsedBytes) return std::nullopt;
  const std::u16string input = utf16(text);
  if (hasLongNumber(input)) return std::nullopt;
  MutexLock lock(state_->mutex);
  UErrorCode status = U_ZERO_ERROR;
  const Calendar calendar(ucal_clone(udat_getCalendar(state_->format.format.get()), &status));
  if (U_FAILURE(status)) return std::nullopt;
  // What the text leaves out is the first of January 2000, midnight. With no other field set, the order in which the
  // text sets them makes "YYYY" before month and day mean the year as it is written.
  ucal_clear(calendar.get());
  ucal_set(calendar.get(), UCAL_YEAR, 2000);
  int32_t position = 0;
  udat_parseCalendar(state_->format.format.get(), calendar.get(), input.data(), static_cast<int32_t>(input.size()),
                     &position, &status);
  const UDate parsed = ucal_getMillis(calendar.get(), &status);
  const std::size_t rest = input.find_first_not_of(u" \t\r\n", static_cast<std::size_t>(position));
  if (U_FAILURE(status) || rest != std::u16string::npos) return std::nullopt;
  return dateSince1970(parsed / 1000);
}

namespace {

/// Formats each minute once: within it only the two digits of the seconds differ, and fixes come every second.
class LocalizedFormat {
 public:
  void append(TextBuilder& out, Date date) {
    const double second = std::floor(secondsSince1970(date));
    const double minute = std::floor(second / 60) * 60;
    MutexLock lock(mutex_);
    if (!isOpen()) return;
    if (minute != minute_) keep(minute);
    const double seconds = second - minute;
    // Some locales name noon and midnight, which are exact. Beyond 2^53 there are no single seconds.
    if (!hasSeconds_ || !(seconds >= 1 && seconds < 60)) return out.append(text(format(format_, milliseconds(date))));
    const auto digits = static_cast<int>(seconds);
    out.append(beforeSeconds_);
    out.append(static_cast<char>('0' + digits / 10));
    out.append(static_cast<char>('0' + digits % 10));
    out.append(afterSeconds_);
  }

 private:
  bool isOpen() REQUIRES(mutex_) {
    UErrorCode status = U_ZERO_ERROR;
    if (!format_.calendar) {
      format_.format.reset(udat_open(UDAT_FULL, UDAT_SHORT, nullptr, nullptr, 0, nullptr, 0, &status));
      format_.calendar.reset(ucal_open(nullptr, 0, nullptr, UCAL_DEFAULT, &status));
    }
    return U_SUCCESS(status);
  }

  /// Formats one second of the minute and keeps what stands before and after the two digits of the seconds. They are
  /// not found in a locale with other digits, nor in a zone whose offset from UTC is not in whole minutes.
  void keep(double minute) REQUIRES(mutex_) {
    UFieldPosition seconds{UDAT_SECOND_FIELD, 0, 0};
    const std::u16string whole = format(format_, milliseconds(dateSince1970(minute + 1)), &seconds);
    const auto begin = static_cast<std::size_t>(seconds.beginIndex);
    minute_ = minute;
    hasSeconds_ = seconds.endIndex - seconds.beginIndex == 2 && whole.compare(begin, 2, u"01") == 0;
    if (!hasSeconds_) return;
    beforeSeconds_ = text(whole.substr(0, begin));
    afterSeconds_ = text(whole.substr(begin + 2));
  }

  /// One form whatever the locale data's age: newer data has a narrow no-break blank before "PM".
  static std::string text(std::u16string formatted) {
    std::replace(formatted.begin(), formatted.end(), u'\u202F', u' ');
    return utf8(formatted);
  }

  Mutex mutex_;
  Format format_ GUARDED_BY(mutex_);
  double minute_ GUARDED_BY(mutex_) = std::nan("");
  bool hasSeconds_ GUARDED_BY(mutex_) = false;
  std::string beforeSeconds_ GUARDED_BY(mutex_);
  std::string afterSeconds_ GUARDED_BY(mutex_);
};

}  // namespace

void append(TextBuilder& out, const LocalizedTime& time) {
  static auto* const shared = new LocalizedFormat;
  shared->append(out, time.date);
}

}  // namespace tarvo::platform
