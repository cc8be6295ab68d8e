#include "limits/TextBuffer.h"

#include <chrono>
#include <cmath>

namespace tarvo::bench {

void TextBuffer::addDate(double seconds) {
  const auto whole = static_cast<std::int64_t>(std::floor(seconds));
  const std::chrono::sys_days day{std::chrono::days{whole / 86400}};
  const auto second = static_cast<unsigned>(whole % 86400);
  const std::chrono::year_month_day date{day};
  const auto year = static_cast<unsigned>(static_cast<int>(date.year()));
  addTwoDigits(year / 100);
  addTwoDigits(year % 100);
  *next_++ = '-';
  addTwoDigits(static_cast<unsigned>(date.month()));
  *next_++ = '-';
  addTwoDigits(static_cast<unsigned>(date.day()));
  *next_++ = ' ';
  addTwoDigits(second / 3600);
  *next_++ = ':';
  addTwoDigits(second / 60 % 60);
  *next_++ = ':';
  addTwoDigits(second % 60);
  add(" +0000");
}

}  // namespace tarvo::bench
