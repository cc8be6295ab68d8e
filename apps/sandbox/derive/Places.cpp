#include "sandbox/derive/Places.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>

#include "sandbox/derive/Parameters.h"

namespace tarvo::sandbox::derive {
namespace {

using Json = nlohmann::json;

constexpr double kDay = 86'400, kHour = 3600;
constexpr std::int64_t kEveryNumber = std::numeric_limits<std::int64_t>::max();

struct Member {
  Stop stay;
  Vec at;
  double weight = 0;
  int cluster = -1;
};

/// What the stays of a cluster come to.
struct Cluster {
  KnownPlace place;
  double weight = 0;
  double night = 0, working = 0;  ///< seconds
  double workingDays = 0;
};

/// The part of a span of solar time that lies between two hours of each day; an end above 24 reaches into the next.
std::map<std::int64_t, double> secondsOfDays(double from, double to, double firstHour, double lastHour) {
  std::map<std::int64_t, double> days;
  for (auto day = static_cast<std::int64_t>(std::floor(from / kDay)) - 1; day * kDay < to; ++day) {
    const double begin = day * kDay + firstHour * kHour, end = day * kDay + lastHour * kHour;
    if (const double shared = std::min(to, end) - std::max(from, begin); shared > 0) days[day] += shared;
  }
  return days;
}

bool isWorkingDay(std::int64_t day) { return weekday(day) >= 1 && weekday(day) <= 5; }

std::vector<Member> membersOf(Records& records, const Book& book) {
  std::vector<Member> members;
  for (const Row& row : records.rows(Kind::Stay, book.newest - kProfileDays * kDay, book.newest)) {
    const Stop stay = stopOf(row);
    if (stay.lost || stay.departure <= book.profileSince) continue;
    const double hours = std::max(0.0, stay.departure - stay.arrival) / kHour;
    members.push_back({stay, geocentric(stay.centre), kVisitWeight + kHoursWeight * hours});
  }
  return members;
}

/// DBSCAN (Ester and others 1996), in which a neighbourhood counts by the weight of its members. Gives the number of
/// clusters; what belongs to none keeps -1.
int cluster(std::vector<Member>& members) {
  const auto neighbours = [&](const Member& one) {
    std::vector<std::size_t> found;
    for (std::size_t i = 0; i < members.size(); ++i)
      if (chord(one.at, members[i].at) <= kNeighbourhood) found.push_back(i);
    return found;
  };
  const auto weigh = [&](const std::vector<std::size_t>& some) {
    double weight = 0;
    for (const std::size_t i : some) weight += members[i].weight;
    return weight;
  };
  int clusters = 0;
  for (Member& seed : members) {
    if (seed.cluster >= 0) continue;
    if (weigh(neighbours(seed)) < kCoreWeight) continue;
    seed.cluster = clusters++;
    std::vector<Member*> open = {&seed};
    while (!open.empty()) {
      const auto around = neighbours(*open.back());
      open.pop_back();
      if (weigh(around) < kCoreWeight) continue;
      for (const std::size_t i : around) {
        if (members[i].cluster >= 0) continue;
        members[i].cluster = seed.cluster;
        open.push_back(&members[i]);
      }
    }
  }
  return clusters;
}

Cluster sumUp(const std::vector<const Member*>& members) {
  Cluster cluster;
  KnownPlace& place = cluster.place;
  Vec sum;
  for (const Member* member : members) {
    sum = sum + member->at * member->weight;
    cluster.weight += member->weight;
  }
  const Vec centre = sum * (1 / cluster.weight);
  place.centre = onSurface(centre);
  place.first = members.front()->stay.arrival;
  std::map<std::int64_t, double> workingDays;
  double lastLeft = std::numeric_limits<double>::lowest();
  for (const Member* member : members) {
    const Stop& stay = member->stay;
    const double from = solarTime(stay.arrival, place.centre.lon), to = solarTime(stay.departure, place.centre.lon);
    if (stay.arrival > lastLeft + kSameVisit) ++place.visits;
    place.last = lastLeft = stay.departure;
    place.seconds += std::max(0.0, stay.departure - stay.arrival);
    place.radius = std::max(place.radius, chord(centre, member->at) + kZoneMargin);
    for (const auto& [day, seconds] : secondsOfDays(from, to, 22, 30)) cluster.night += seconds;
    for (const auto& [day, seconds] : secondsOfDays(from, to, 9, 17))
      if (isWorkingDay(day)) workingDays[day] += seconds;
  }
  for (const auto& [day, seconds] : workingDays) {
    cluster.working += seconds;
    cluster.workingDays += seconds >= kHour;
  }
  return cluster;
}

std::vector<Cluster> clustersOf(std::vector<Member>& members) {
  std::vector<std::vector<const Member*>> groups(cluster(members));
  for (const Member& member : members)
    if (member.cluster >= 0) groups[member.cluster].push_back(&member);
  std::vector<Cluster> clusters;
  for (const auto& group : groups) clusters.push_back(sumUp(group));
  // The heaviest choose their old numbers first; of new ones the first that was visited gets the lower number.
  std::stable_sort(clusters.begin(), clusters.end(),
                   [](const Cluster& one, const Cluster& other) { return one.weight > other.weight; });
  return clusters;
}

/// Gives clusters the numbers of the places that they continue. Places that lie in another now, or whose visits have
/// come out as something else, are taken from `old`; those that are left are remembered.
std::vector<std::int64_t> takeUp(std::vector<Cluster>& clusters, const std::vector<Member>& members, double since,
                                 std::vector<KnownPlace>& old) {
  std::vector<std::int64_t> gone;
  for (Cluster& cluster : clusters) {
    auto nearest = old.end();
    double least = kNeighbourhood;
    for (auto one = old.begin(); one != old.end(); ++one)
      if (const double off = distance(one->centre, cluster.place.centre); off < least) least = off, nearest = one;
    if (nearest == old.end()) continue;
    KnownPlace& now = cluster.place;
    now.id = nearest->id;
    // A place that drifts a little is shown where it was: a new version of all places would be sent for nothing.
    if (least < kNoticeableMove && std::abs(now.radius - nearest->radius) < kNoticeableMove)
      now.centre = nearest->centre, now.radius = nearest->radius;
    old.erase(nearest);
  }
  std::erase_if(old, [&](const KnownPlace& one) {
    const Vec at = geocentric(one.centre);
    const bool merged = std::any_of(clusters.begin(), clusters.end(), [&](const Cluster& cluster) {
      return chord(at, geocentric(cluster.place.centre)) <= cluster.place.radius;
    });
    const bool visited = one.last < since || std::any_of(members.begin(), members.end(), [&](const Member& member) {
                           return chord(at, member.at) <= one.radius;
                         });
    if (merged || !visited) gone.push_back(one.id);
    return merged || !visited;
  });
  return gone;
}

template <class Measure>
Cluster* most(std::vector<Cluster>& clusters, const Cluster* except, Measure measure) {
  Cluster* best = nullptr;
  for (Cluster& cluster : clusters)
    if (&cluster != except && measure(cluster) > (best ? measure(*best) : 0)) best = &cluster;
  return best;
}

void name(std::vector<Cluster>& clusters, std::vector<KnownPlace>& remembered) {
  for (Cluster& cluster : clusters) cluster.place.name = "Place " + std::to_string(cluster.place.id);
  const auto rename = [&](Cluster& cluster, const char* name) {
    cluster.place.name = name;
    for (KnownPlace& place : remembered)
      if (place.name == name) place.name = "Place " + std::to_string(place.id);
  };
  Cluster* home = most(clusters, nullptr, [](const Cluster& one) { return one.night; });
  if (home && home->night < kHomeHours * kHour) home = nullptr;
  if (home) rename(*home, "Home");
  Cluster* work = most(clusters, home, [](const Cluster& one) {
    return one.workingDays >= kWorkDays && one.working >= kWorkHours * kHour ? one.working : 0;
  });
  if (work) rename(*work, "Work");
}

KnownPlace placeOfRow(const Row& row) {
  const Json json = Json::parse(row.json);
  return {row.id,
          {json.at("lon"), json.at("lat")},
          json.at("radius"),
          json.at("name"),
          json.at("visits"),
          json.at("seconds"),
          row.from,
          row.to};
}

Row rowOfPlace(const KnownPlace& place) {
  const Json json = {{"lon", place.centre.lon}, {"lat", place.centre.lat}, {"radius", place.radius},
                     {"name", place.name},      {"visits", place.visits},  {"seconds", place.seconds}};
  return {place.id, place.first, place.last, json.dump()};
}

/// True when a unit can see a difference.
bool keep(Records& records, const KnownPlace& place, const std::vector<KnownPlace>& before) {
  records.put(Kind::Place, rowOfPlace(place));
  return std::none_of(before.begin(), before.end(), [&](const KnownPlace& old) {
    return old.id == place.id && old.name == place.name && old.radius == place.radius &&
           old.centre.lon == place.centre.lon && old.centre.lat == place.centre.lat;
  });
}

}  // namespace

int weekday(std::int64_t day) { return static_cast<int>(((day + 4) % 7 + 7) % 7); }

std::vector<KnownPlace> knownPlaces(Records& records) {
  std::vector<KnownPlace> places;
  for (const Row& row : records.numbered(Kind::Place, 0, kEveryNumber)) places.push_back(placeOfRow(row));
  return places;
}

const KnownPlace* placeOf(const Stop& stay, const std::vector<KnownPlace>& places) {
  const KnownPlace* nearest = nullptr;
  double least = std::numeric_limits<double>::max();
  const Vec at = geocentric(stay.centre);
  for (const KnownPlace& place : places)
    if (const double off = chord(at, geocentric(place.centre)); off <= place.radius && off < least)
      least = off, nearest = &place;
  return stay.lost ? nullptr : nearest;
}

bool updatePlaces(Records& records, Book& book) {
  std::vector<Member> members = membersOf(records, book);
  std::vector<Cluster> clusters = clustersOf(members);
  const std::vector<KnownPlace> before = knownPlaces(records);
  std::vector<KnownPlace> remembered = before;
  const auto gone = takeUp(clusters, members, book.newest - kProfileDays * kDay, remembered);
  std::stable_sort(clusters.begin(), clusters.end(),
                   [](const Cluster& one, const Cluster& other) { return one.place.first < other.place.first; });
  for (Cluster& cluster : clusters)
    if (cluster.place.id == 0) cluster.place.id = ++book.places;
  name(clusters, remembered);

  bool isNew = !gone.empty();
  for (const std::int64_t id : gone) records.remove(Kind::Place, id);
  for (const Cluster& cluster : clusters) isNew |= keep(records, cluster.place, before);
  for (const KnownPlace& place : remembered) isNew |= keep(records, place, before);
  book.placeCount = static_cast<std::int64_t>(clusters.size() + remembered.size());
  if (isNew) book.placeVersion = ++book.placeVersions;
  return isNew;
}

}  // namespace tarvo::sandbox::derive
