#include "sandbox/derive/Sweep.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>

#include "sandbox/derive/Parameters.h"

namespace tarvo::sandbox::derive {
namespace {

using Json = nlohmann::json;

Fix fixAt(double time, Place2D place, double accuracy) { return {time, accuracy, place, geocentric(place)}; }

/// Metres between two positions that their accuracies do not explain.
double apart(const Vec& one, double accuracy, const Fix& other) {
  return std::max(0.0, chord(one, other.at) - accuracy - other.accuracy);
}

bool believable(const Fix& from, const Fix& to) {
  return apart(from.at, from.accuracy, to) <= kHighestSpeed * (to.time - from.time);
}

/// How long it takes to come so far when no position tells.
double unseenTime(double metres) {
  return std::min(metres, kWalkUnseen) / kPaceUnseen + std::max(0.0, metres - kWalkUnseen) / kSpeedUnseen;
}

Json json(const Fix& fix) { return {fix.time, fix.place.lon, fix.place.lat, fix.accuracy}; }
Json json(const std::vector<Fix>& fixes) {
  Json list = Json::array();
  for (const Fix& fix : fixes) list.push_back(json(fix));
  return list;
}
Json json(const std::optional<Fix>& fix) { return fix ? json(*fix) : Json(); }

Fix fixOf(const Json& json) { return fixAt(json[0], {json[1], json[2]}, json[3]); }
std::optional<Fix> optionalFixOf(const Json& json) {
  return json.is_null() ? std::nullopt : std::optional(fixOf(json));
}
std::vector<Fix> fixesOf(const Json& json) {
  std::vector<Fix> fixes;
  for (const Json& fix : json) fixes.push_back(fixOf(fix));
  return fixes;
}

}  // namespace

bool isSound(const Point& point) {
  return point.time >= 0 && point.time <= kLatestTime && std::abs(point.lon) <= 180 && std::abs(point.lat) <= 90;
}

std::vector<Fix> Filter::take(const Point& point) {
  if (!isSound(point) || point.accuracy > kWorstAccuracy) return {};
  const Fix fix = fixAt(point.time, {point.lon, point.lat},
                        point.accuracy >= 0 ? std::min(point.accuracy, kMostTolerance) : kUnknownAccuracy);
  if (last_ && fix.time <= last_->time) return {};
  std::vector<Fix> taken;
  if (!last_ || believable(*last_, fix)) {
    doubted_.clear();
    taken = {fix};
  } else {
    if (!doubted_.empty() && (fix.time <= doubted_.back().time || !believable(doubted_.back(), fix))) doubted_.clear();
    doubted_.push_back(fix);
    if (doubted_.size() < kWitnesses || fix.time - doubted_.front().time < kWitnessTime) return {};
    taken = std::exchange(doubted_, {});
  }
  last_ = taken.back();
  return taken;
}

Sweep::Sweep(const Json& state) : last_(optionalFixOf(state.at("last"))), window_(fixesOf(state.at("window"))) {
  filter_.last_ = last_;
  filter_.doubted_ = fixesOf(state.at("doubted"));
  if (const Json& stay = state.at("stay"); !stay.is_null()) {
    stay_.emplace();
    stay_->anchor = stay[0], stay_->seen = stay[1], stay_->arrival = stay[2];
    stay_->sum = {stay[3], stay[4], stay[5]}, stay_->count = stay[6];
    stay_->inside = stay[7], stay_->near = stay[8], stay_->announce = stay[9];
  }
}

Json Sweep::state() const {
  Json stay;
  if (stay_)
    stay = {stay_->anchor, stay_->seen,  stay_->arrival, stay_->sum.x, stay_->sum.y,
            stay_->sum.z,  stay_->count, stay_->inside,  stay_->near,  stay_->announce};
  return {{"last", json(last_)}, {"window", json(window_)}, {"doubted", json(filter_.doubted_)}, {"stay", stay}};
}

void Sweep::take(const Point& point, std::vector<Stop>& stops) {
  for (const Fix& fix : filter_.take(point)) {
    if (last_ && (fix.time - last_->time >= kSilence || !believable(*last_, fix)))
      afterSilence(fix, stops);
    else
      add(fix, stops);
    last_ = fix;
  }
}

std::optional<Stop> Sweep::staying() const {
  if (!stay_) return std::nullopt;
  Stop stop = *stay_;
  stop.centre = onSurface(stay_->sum * (1 / stay_->count));
  // Who walks about at the edge of the place has not left it yet.
  stop.departure = stay_->inside - stay_->near < kLeave ? stay_->near : stay_->inside;
  return stop;
}

/// A silence near the place where it began is a stay; one after which the host is far away may be anything, and only if
/// the host was under way for most of it the trip goes on.
void Sweep::afterSilence(const Fix& fix, std::vector<Stop>& stops) {
  const double silence = fix.time - last_->time, metres = chord(last_->at, fix.at);
  const bool known = silence <= kLongestStay;
  const bool near = known && metres <= kNearAfterSilence + last_->accuracy + fix.accuracy && silence >= kSilence;
  if (stay_ && known && silence >= kSilence && metres <= kDrivenUnseen) {
    window_.clear();  // it stood when it fell silent, so it stood on until it had to leave for where it is now
    return stand(fix, stops);
  }
  if (!stay_ && near) {
    begin({*last_, fix}, stops);
    return;
  }
  const bool underWay = silence < kLongSilence && metres >= kSlowest * silence && believable(*last_, fix);
  if (underWay) return add(fix, stops);
  if (stay_) end(stops);
  Stop lost;
  lost.anchor = lost.arrival = last_->time, lost.seen = lost.departure = fix.time, lost.lost = true;
  stops.push_back(lost);
  window_ = {fix};
}

void Sweep::add(const Fix& fix, std::vector<Stop>& stops) {
  if (stay_)
    stand(fix, stops);
  else
    move(fix, stops);
}

void Sweep::move(const Fix& fix, std::vector<Stop>& stops) {
  if (!window_.empty() && fix.time - window_.back().time < kThinning) return;
  window_.push_back(fix);
  const auto holds = [this] {
    const Fix& anchor = window_.front();
    return std::all_of(window_.begin(), window_.end(),
                       [&](const Fix& one) { return apart(anchor.at, anchor.accuracy, one) <= kStayRadius; });
  };
  while (!holds()) window_.erase(window_.begin());
  if (fix.time - window_.front().time >= kStayTime) begin(std::exchange(window_, {}), stops);
}

void Sweep::begin(std::vector<Fix> fixes, std::vector<Stop>& stops) {
  stay_.emplace();
  stay_->anchor = fixes.front().time;
  stay_->seen = stay_->inside = stay_->near = fixes.back().time;
  stay_->announce = stay_->anchor + kFirstAnnounced;
  for (const Fix& fix : fixes) stay_->sum = stay_->sum + fix.at, ++stay_->count;
  const Vec centre = stay_->sum * (1 / stay_->count);
  // Two positions alone are those about a silence, whose place is known less well.
  const auto arrived = std::find_if(fixes.begin(), fixes.end(), [&](const Fix& fix) {
    return fixes.size() == 2 || apart(centre, 0, fix) <= kStayRadius / 2;
  });
  stay_->arrival = arrived == fixes.end() ? stay_->seen : arrived->time;
  window_.clear();
  stops.push_back(*staying());
}

void Sweep::stand(const Fix& fix, std::vector<Stop>& stops) {
  const Vec centre = stay_->sum * (1 / stay_->count);
  const double off = apart(centre, 0, fix);
  if (off <= kStayRadius) {
    window_.clear();
    stay_->inside = fix.time;
    if (off <= kStayRadius / 2) {
      stay_->near = fix.time;
      stay_->sum = stay_->sum + fix.at;
      ++stay_->count;
    }
    if (fix.time < stay_->announce) return;
    stay_->announce = stay_->anchor + 2 * (fix.time - stay_->anchor);
    stops.push_back(*staying());
    return;
  }
  if (window_.empty() || fix.time - window_.back().time >= kThinning) window_.push_back(fix);
  if (fix.time - window_.front().time < kLeave && (off <= kSurelyLeft || window_.size() < 2)) return;
  std::vector<Fix> left = std::exchange(window_, {});
  // Nobody leaves before there is need to, where positions are rare while the host stands.
  const Fix& first = left.front();
  stay_->near = std::max(stay_->near, first.time - unseenTime(chord(centre, first.at)));
  stay_->inside = std::max(stay_->inside, stay_->near);
  end(stops);
  for (const Fix& one : left) add(one, stops);
}

void Sweep::end(std::vector<Stop>& stops) {
  stops.push_back(*staying());
  stay_.reset();
  window_.clear();
}

}  // namespace tarvo::sandbox::derive
