#include "NmeaReader.h"

#include <array>
#include <charconv>
#include <cmath>
#include <utility>

#include "Accuracy.h"

namespace tarvo::receivers {
namespace {

using namespace std::chrono_literals;
using platform::CLLocation;
using platform::CLLocationCoordinate2D;
using std::chrono::milliseconds;
using std::chrono::sys_days;

constexpr std::size_t kLongestSentence = 256;
constexpr double kMetresPerSecondOfKnot = 1852.0 / 3600;
constexpr platform::Seconds kWeekCycle = std::chrono::weeks(1024);

/// The parts between the commas; those behind the last one are empty.
using Fields = std::array<std::string_view, 16>;

Fields split(std::string_view text) {
  Fields fields;
  for (auto& field : fields) {
    field = text.substr(0, text.find(','));
    text.remove_prefix(std::min(field.size() + 1, text.size()));
  }
  return fields;
}

std::optional<double> number(std::string_view text) {
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed);
  if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) return std::nullopt;
  return value;
}

/// A number that consists of `count` figures.
std::optional<int> figures(std::string_view text, std::size_t count) {
  int value = 0;
  if (text.size() < count) return std::nullopt;
  for (const char c : text.substr(0, count)) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  return value;
}

/// "hhmmss" and a fraction.
std::optional<milliseconds> timeOfDay(std::string_view text) {
  const auto whole = figures(text, 6);
  if (!whole || *whole >= 240000 || *whole / 100 % 100 >= 60) return std::nullopt;
  const auto seconds = number(text.substr(4));
  if (!seconds || *seconds >= 61) return std::nullopt;
  return std::chrono::hours(*whole / 10000) + std::chrono::minutes(*whole / 100 % 100) +
         milliseconds(std::llround(*seconds * 1000));
}

/// "ddmmyy"
std::optional<sys_days> dayOf(std::string_view text) {
  const auto whole = figures(text, 6);
  if (!whole || text.size() != 6) return std::nullopt;
  const int year = *whole % 100 + (*whole % 100 < 80 ? 2000 : 1900);
  const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(*whole / 100 % 100),
                                         std::chrono::day(*whole / 10000)};
  if (!date.ok()) return std::nullopt;
  return sys_days(date);
}

/// `size` figures of degrees, two of minutes and their fraction.
std::optional<double> angle(std::string_view text, std::size_t size, std::string_view side, std::string_view sides) {
  const auto degrees = figures(text, size);
  if (!degrees || !figures(text.substr(size), 2) || side.size() != 1) return std::nullopt;
  const auto minutes = number(text.substr(size));
  if (!minutes || *minutes >= 60 || sides.find(side) == sides.npos) return std::nullopt;
  const double value = *degrees + *minutes / 60;
  return side[0] == sides[0] ? value : -value;
}

std::optional<CLLocationCoordinate2D> coordinate(std::string_view lat, std::string_view northSouth,
                                                 std::string_view lon, std::string_view eastWest) {
  const auto latitude = angle(lat, 2, northSouth, "NS"), longitude = angle(lon, 3, eastWest, "EW");
  if (!latitude || !longitude || std::abs(*latitude) > 90 || std::abs(*longitude) > 180) return std::nullopt;
  return CLLocationCoordinate2D{*latitude, *longitude};
}

}  // namespace

void NmeaReader::take(std::string_view bytes, Fixes& fixes) {
  for (const char c : bytes) {
    if (c == '$') {
      if (isInside_) refuse();
      sentence_.clear();
      isInside_ = true;
    } else if (!isInside_) {
      continue;
    } else if (c == '\r' || c == '\n') {
      endSentence(fixes);
    } else if (c < ' ' || c > '~' || c == '!' || sentence_.size() >= kLongestSentence) {
      refuse();
    } else {
      sentence_ += c;
      if (sentence_.size() >= 3 && sentence_[sentence_.size() - 3] == '*') endSentence(fixes);
    }
  }
}

void NmeaReader::pause(Fixes& fixes) {
  if (moment_.rmc || moment_.gga) give(fixes);
}

void NmeaReader::finish(Fixes& fixes) {
  if (isInside_) endSentence(fixes);
  begin(milliseconds(-1), fixes);
}

void NmeaReader::refuse() {
  isInside_ = false;
  ++statistics_.refused;
}

void NmeaReader::endSentence(Fixes& fixes) {
  std::string_view text = sentence_;
  const std::size_t star = text.find('*');
  if (star == text.npos ? hasChecksums_ : star + 3 != text.size()) return refuse();
  if (star != text.npos) {
    unsigned told = 0, sum = 0;
    const auto [end, error] = std::from_chars(text.data() + star + 1, text.data() + text.size(), told, 16);
    text = text.substr(0, star);
    for (const char c : text) sum ^= static_cast<unsigned char>(c);
    if (error != std::errc() || end != sentence_.data() + sentence_.size() || told != sum) return refuse();
    hasChecksums_ = true;
  }
  isInside_ = false;
  ++statistics_.sentences;

  const Fields field = split(text);
  if (field[0].size() != 5 || field[0][0] == 'P') return;  // P: a maker's own
  const std::string_view kind = field[0].substr(2);
  const auto time = timeOfDay(field[1]);
  if (!time || (kind != "RMC" && kind != "GGA" && kind != "GST")) return;
  if (*time != moment_.time) begin(*time, fixes);
  if (kind == "RMC" && (!moment_.rmc || !moment_.rmc->isValid)) {
    moment_.rmc = Rmc{field[2] == "A" && field[12] != "N", coordinate(field[3], field[4], field[5], field[6]),
                      number(field[7]), number(field[8]), dayOf(field[9])};
  } else if (kind == "GGA" && (!moment_.gga || !moment_.gga->isValid)) {
    moment_.gga = Gga{number(field[6]).value_or(0) > 0, coordinate(field[2], field[3], field[4], field[5]),
                      number(field[8]), number(field[9])};
  } else if (kind == "GST") {
    moment_.gst =
        Gst{std::hypot(number(field[6]).value_or(0), number(field[7]).value_or(0)), number(field[8]).value_or(0)};
    if (moment_.isGiven) expectsGst_ = true;  // from the next moment on
  }
  if (moment_.rmc && moment_.gga && (moment_.gst || !expectsGst_)) give(fixes);
}

void NmeaReader::begin(Milliseconds time, Fixes& fixes) {
  if (moment_.rmc || moment_.gga) {
    ++statistics_.moments;
    if (!moment_.gst) expectsGst_ = false;
    give(fixes);
  }
  moment_ = Moment{};
  moment_.time = time;
}

void NmeaReader::give(Fixes& fixes) {
  if (std::exchange(moment_.isGiven, true)) return;
  if (const auto made = fix()) fixes.push_back(*made);
}

std::optional<CLLocation> NmeaReader::fix() {
  const auto& [time, rmc, gga, gst, isGiven] = moment_;
  if ((rmc && !rmc->isValid) || (gga && !gga->isValid)) return std::nullopt;
  if (rmc && rmc->day)
    day_ = rmc->day;
  else if (day_ && time - time_ < -12h)
    *day_ += std::chrono::days(1);
  else if (day_ && time - time_ > 12h)
    *day_ -= std::chrono::days(1);
  time_ = time;
  const auto& place = rmc && rmc->coordinate ? rmc->coordinate : gga ? gga->coordinate : std::nullopt;
  if (!place || !day_) return std::nullopt;

  CLLocation fix;
  fix.coordinate = *place;
  fix.timestamp = *day_ + std::chrono::duration_cast<platform::Seconds>(time);
  const bool isGraded = gga && gga->hdop.value_or(0) > 0;
  fix.horizontalAccuracy = gst && gst->horizontal > 0 ? gst->horizontal
                           : isGraded                 ? *gga->hdop * kMetresPerHdop
                                                      : kAssumedMetres;
  if (gga && gga->altitude) {
    fix.altitude = *gga->altitude;
    fix.verticalAccuracy = gst && gst->vertical > 0 ? gst->vertical : kAssumedMetres;
  }
  if (rmc && rmc->knots && *rmc->knots >= 0) fix.speed = *rmc->knots * kMetresPerSecondOfKnot;
  if (rmc && rmc->course && *rmc->course >= 0 && *rmc->course <= 360) fix.course = *rmc->course;
  return fix;
}

platform::Date withoutRollover(platform::Date told, platform::Date now, platform::Date built) {
  const double cycles = now >= built ? std::round((now - told) / kWeekCycle) : std::ceil((built - told) / kWeekCycle);
  return cycles > 0 ? told + cycles * kWeekCycle : told;
}

}  // namespace tarvo::receivers
