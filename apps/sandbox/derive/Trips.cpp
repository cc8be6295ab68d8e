#include "sandbox/derive/Trips.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <tuple>
#include <utility>

#include "sandbox/derive/Parameters.h"

namespace tarvo::sandbox::derive {
namespace {

using Json = nlohmann::ordered_json;

constexpr double kEver = std::numeric_limits<double>::max();
constexpr double kFirstLook = 86'400;

/// Takes out positions that lie far off to one side, from where the host would have come straight back: slow travellers
/// have such errors at speeds that are possible for others.
void dropSpikes(std::vector<Fix>& fixes) {
  std::vector<double> speeds;
  for (std::size_t i = 1; i < fixes.size(); ++i)
    speeds.push_back(chord(fixes[i - 1].at, fixes[i].at) / (fixes[i].time - fixes[i - 1].time));
  if (speeds.size() < 3) return;
  auto usual = speeds;
  std::nth_element(usual.begin(), usual.begin() + static_cast<std::ptrdiff_t>(usual.size() / 2), usual.end());
  const double fast = kSpikeSpeed * usual[usual.size() / 2];
  std::vector<Fix> kept = {fixes.front()};
  for (std::size_t i = 1; i < fixes.size(); ++i) {
    if (i + 1 < fixes.size() && speeds[i - 1] > fast && speeds[i] > fast) {
      const double out = chord(kept.back().at, fixes[i].at), back = chord(fixes[i].at, fixes[i + 1].at);
      if (std::min(out, back) > kSpikeLength && chord(kept.back().at, fixes[i + 1].at) < std::min(out, back) / 2)
        continue;
    }
    kept.push_back(fixes[i]);
  }
  fixes = std::move(kept);
}

/// The positions of a trip that count, with the places where it is known to begin and to end although no position says
/// so.
std::vector<Fix> fixesBetween(Records& records, const std::optional<KeptStop>& previous, const KeptStop& next,
                              double from) {
  std::vector<Fix> fixes;
  Filter filter;
  for (const Point& point : records.points(from, next.arrival))
    for (Fix& fix : filter.take(point)) fixes.push_back(fix);
  dropSpikes(fixes);
  const auto away = [](const Stop& stop, const Fix& fix) { return distance(stop.centre, fix.place) > kStayRadius; };
  const auto at = [](const Stop& stop, double time) { return Fix{time, 0, stop.centre, geocentric(stop.centre)}; };
  if (fixes.empty()) return fixes;
  if (previous && !previous->lost && fixes.front().time > from && away(*previous, fixes.front()))
    fixes.insert(fixes.begin(), at(*previous, from));
  if (!next.lost && fixes.back().time < next.arrival && away(next, fixes.back()))
    fixes.push_back(at(next, next.arrival));
  return fixes;
}

bool isTrip(const std::vector<Fix>& fixes, const std::optional<KeptStop>& previous, const KeptStop& next) {
  if (fixes.size() < 2 || fixes.back().time - fixes.front().time < kLeastDuration) return false;
  // A stay reaches some way along the trips before and behind it.
  const Vec start = previous && !previous->lost ? geocentric(previous->centre) : fixes.front().at;
  return (!next.lost && chord(geocentric(next.centre), start) >= kLeastExtent) ||
         std::any_of(fixes.begin(), fixes.end(), [&](const Fix& fix) { return chord(fix.at, start) >= kLeastExtent; });
}

Row tripOf(const std::vector<Fix>& fixes) {
  std::vector<Vec> line;
  for (const Fix& fix : fixes) line.push_back(fix.at);
  std::vector<Place2D> route;
  double metres = 0;
  for (const std::size_t i : simplified(line, kRouteTolerance)) {
    if (!route.empty()) metres += distance(route.back(), fixes[i].place);
    route.push_back(fixes[i].place);
  }
  const Fix &start = fixes.front(), &end = fixes.back();
  const Json json = {{"departure_lat", start.place.lat},   {"departure_lon", start.place.lon},
                     {"arrival_lat", end.place.lat},       {"arrival_lon", end.place.lon},
                     {"start_time", dateText(start.time)}, {"arrival_time", dateText(end.time)},
                     {"distance", std::round(metres)},     {"route", routeJson(route)}};
  return {0, start.time, end.time, json.dump()};
}

}  // namespace

void Trips::takeIn(std::vector<Point> fresh) {
  const auto rank = [](const Point& point) { return std::tuple(point.time, point.id); };
  std::erase_if(fresh, [](const Point& point) { return !isSound(point); });
  std::sort(fresh.begin(), fresh.end(), [&](const Point& one, const Point& other) { return rank(one) < rank(other); });
  if (fresh.empty()) return;
  const bool isFirst = book_.newestID < 0;
  if (isFirst || fresh.front().time < book_.first) book_.first = fresh.front().time;
  const auto newer =
      isFirst ? fresh.begin()
              : std::upper_bound(fresh.begin(), fresh.end(), std::tuple(book_.newest, book_.newestID),
                                 [&](const auto& newest, const Point& point) { return newest < rank(point); });
  const double lastLate = newer == fresh.begin() ? 0 : std::prev(newer)->time;
  if (newer != fresh.end()) book_.newest = fresh.back().time, book_.newestID = fresh.back().id;
  if (newer != fresh.begin() && !rederive(fresh.front().time, lastLate)) return;
  std::vector<Stop> found;
  for (auto point = newer; point != fresh.end(); ++point) book_.sweep.take(*point, found);
  if (!found.empty()) follow(stopNumbered(records_, book_.stop), found);
}

/// Derives anew from the last stop that the late positions cannot have changed, up to the first one that comes out as
/// it was: from there on everything does. Without such a one all positions have been looked at, which is told by false.
bool Trips::rederive(double from, double to) {
  const auto start = lastSeenBefore(from);
  double next = start ? start->anchor : book_.first;
  Sweep sweep;
  std::vector<Stop> found;
  std::optional<KeptStop> meeting;
  do {
    meeting = firstAnchoredAfter(meeting ? meeting->anchor : to);
    const double until = meeting ? meeting->seen : kEver;
    for (const Point& point : records_.points(next, until)) sweep.take(point, found);
    next = std::nextafter(until, kEver);
  } while (meeting && (found.empty() || found.back().anchor != meeting->anchor));
  if (meeting) found.pop_back();

  const double after = start ? start->anchor : std::numeric_limits<double>::lowest();
  for (const Row& row : records_.rows(Kind::Stay, after, meeting ? meeting->anchor : kEver)) {
    if (row.from <= after || (meeting && row.from > meeting->anchor)) continue;
    const KeptStop stop = stopOf(row);
    if (stop.trip != 0)
      for (Row& trip : records_.numbered(Kind::Trip, stop.trip - 1, stop.trip)) oldTrips_.push_back(std::move(trip));
    if (!meeting || stop.id != meeting->id) oldStops_.push_back(stop);
  }
  const std::int64_t lastStop = book_.stop;
  book_.stop = start ? start->id : 0;
  const auto previous = follow(start, found);
  if (meeting) {
    meeting->trip = connect(previous, *meeting);
    keep(*meeting);
    book_.stop = lastStop;
  } else {
    book_.sweep = std::move(sweep);
  }
  for (const KeptStop& stop : std::exchange(oldStops_, {})) {
    records_.remove(Kind::Stay, stop.id);
    stopsChanged_ = true;
  }
  for (const Row& trip : std::exchange(oldTrips_, {})) {
    records_.remove(Kind::Trip, trip.id);
    --book_.tripCount;
    tripsChanged_ = true;
  }
  return meeting.has_value();
}

/// Whose finding no position from this time on can have a share in.
std::optional<KeptStop> Trips::lastSeenBefore(double time) {
  for (double look = kFirstLook;; look *= 8) {
    std::optional<KeptStop> last;
    for (const Row& row : records_.rows(Kind::Stay, time - look, time))
      if (KeptStop stop = stopOf(row); stop.seen < time && (!last || stop.anchor > last->anchor)) last = stop;
    if (last || time - look < book_.first) return last;
  }
}

std::optional<KeptStop> Trips::firstAnchoredAfter(double time) {
  for (double look = kFirstLook;; look *= 8) {
    for (const Row& row : records_.rows(Kind::Stay, time, time + look))
      if (row.from > time) return stopOf(row);
    if (time + look > book_.newest) return std::nullopt;
  }
}

/// Keeps what a sweep has found behind a stop and gives the last stop.
std::optional<KeptStop> Trips::follow(std::optional<KeptStop> previous, const std::vector<Stop>& found) {
  for (const Stop& stop : found) {
    KeptStop kept;
    static_cast<Stop&>(kept) = stop;
    if (previous && previous->anchor == stop.anchor) {
      kept.id = previous->id, kept.trip = previous->trip;
    } else {
      const auto old = std::find_if(oldStops_.begin(), oldStops_.end(),
                                    [&](const KeptStop& one) { return one.anchor == stop.anchor; });
      kept.id = old == oldStops_.end() ? ++book_.stops : old->id;
      if (old != oldStops_.end()) oldStops_.erase(old);
      kept.trip = connect(previous, kept);
    }
    keep(kept);
    book_.stop = kept.id;
    previous = kept;
  }
  return previous;
}

/// The number of the trip between two stops, 0 when there is none.
std::int64_t Trips::connect(const std::optional<KeptStop>& previous, const KeptStop& next) {
  const double from = previous ? previous->departure : book_.first;
  if (next.arrival <= from || from < book_.historySince) return 0;
  const auto fixes = fixesBetween(records_, previous, next, from);
  if (!isTrip(fixes, previous, next)) return 0;
  Row trip = tripOf(fixes);
  trip.id = numberFor(trip);
  const auto present = records_.numbered(Kind::Trip, trip.id - 1, trip.id);
  if (!present.empty() && present.front().json == trip.json) return trip.id;
  book_.tripCount += present.empty();
  records_.put(Kind::Trip, trip);
  tripsChanged_ = true;
  return trip.id;
}

/// That of the old trip which it shares most of its time with.
std::int64_t Trips::numberFor(const Row& trip) {
  double most = 0;
  auto same = oldTrips_.end();
  for (auto old = oldTrips_.begin(); old != oldTrips_.end(); ++old)
    if (const double shared = std::min(old->to, trip.to) - std::max(old->from, trip.from); shared > most)
      most = shared, same = old;
  if (same == oldTrips_.end()) return book_.lastTrip = ++book_.trips;
  const std::int64_t id = same->id;
  oldTrips_.erase(same);
  return id;
}

void Trips::keep(const KeptStop& stop) {
  records_.put(Kind::Stay, rowOf(stop));
  stopsChanged_ = true;
}

}  // namespace tarvo::sandbox::derive
