#include "sandbox/live/Streams.h"

#include <algorithm>
#include <exception>
#include <map>
#include <set>

#include "sandbox/live/Texts.h"

namespace tarvo::sandbox::live {
namespace {

constexpr std::chrono::milliseconds kBeat{2000};
constexpr std::int64_t kAtOnce = 500;
/// A host counts as connected this long after it was heard of, in milliseconds: longer than the pause between two
/// words of that, so that it does not seem to go and come.
constexpr std::int64_t kConnected = 10000, kPauseBetweenWords = 3000;

std::string event(std::string_view kind, const std::string& data, std::int64_t n = 0) {
  std::string text = n == 0 ? std::string() : "id: " + std::to_string(n) + "\n";
  return text.append("event: ").append(kind).append("\ndata: ").append(data).append("\n\n");
}

}  // namespace

Stream::Stream(Service& service, Feed& feed, std::optional<std::int64_t> after, std::string user)
    : service_(service), feed_(feed), user_(std::move(user)) {
  last_ = service_.store->lastEvent();
  if (after) last_ = std::min(last_, *after);
}

std::optional<std::string> Stream::next() {
  beat();
  const auto end = std::chrono::steady_clock::now() + kBeat;
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    const auto newest = feed_.waitBeyond(last_, std::max(left, std::chrono::milliseconds(0)));
    if (!newest) return std::nullopt;
    if (*newest <= last_) return ": alive\n\n";
    const std::vector<Event> events = service_.store->events(last_, kAtOnce, user_);
    if (static_cast<std::int64_t>(events.size()) < kAtOnce) last_ = *newest;
    if (!events.empty()) last_ = std::max(last_, events.back().n);
    std::string said = text(events);
    if (!said.empty()) return said;
  }
}

std::string PageStream::text(const std::vector<Event>& events) {
  // Requests are events by their numbers alone.
  std::map<std::int64_t, RequestRow> requests;
  std::int64_t first = INT64_MAX, end = 0;
  const auto numberIn = [](const Event& one) { return readNumber(one.json).value_or(0); };
  for (const Event& one : events)
    if (one.kind == "request") first = std::min(first, numberIn(one)), end = std::max(end, numberIn(one) + 1);
  if (end > 0)
    for (RequestRow& row : service_.store->requests(end, end - first)) requests[row.n] = std::move(row);

  std::string said;
  std::set<std::string> units;
  // They are of this process alone, so another one's tell nothing but that one looks again.
  bool tellsFaults = false;
  for (const Event& one : events) {
    if (!one.unit.empty()) units.insert(one.unit);
    if (one.kind == "unit") continue;
    if (one.kind == "request") {
      const auto row = requests.find(numberIn(one));
      if (row == requests.end()) continue;
      tellsFaults |= !row->second.fault.empty();
      said += event(one.kind, dump(requestJson(row->second)), one.n);
    } else if (one.kind == "faults") {
      tellsFaults = true;
    } else if (one.kind == "push") {
      said += event("push", dump({{"unit", one.unit}, {"push", one.n}, {"state", "sent"}}), one.n);
    } else if (one.kind == "received") {
      said += event("push", one.json, one.n);
    } else {
      said += event(one.kind, one.json, one.n);
    }
  }
  if (tellsFaults) said += event("faults", dump(faultsJson(service_.faults)));
  for (const std::string& uuid : units)
    if (const auto unit = service_.store->unit(uuid)) said += event("unit", dump(unitJson(service_, *unit)));
  return said;
}

HostStream::HostStream(Service& service, Feed& feed, std::optional<std::int64_t> after, std::string user)
    : Stream(service, feed, after, std::move(user)) {
  beat();
  service_.store->tell(user_, "unit", "{}");
}

HostStream::~HostStream() {
  try {
    // A newer stream of the same host may have said since that it is there.
    const auto unit = service_.store->unit(user_);
    if (unit && unit->connectedUntil <= told_ + kConnected) service_.store->connected(user_, 0);
    service_.store->tell(user_, "unit", "{}");
  } catch (const std::exception&) {  // it counts as connected for some seconds more
  }
}

void HostStream::beat() {
  if (now() - told_ < kPauseBetweenWords) return;
  told_ = now();
  service_.store->connected(user_, told_ + kConnected);
}

std::string HostStream::text(const std::vector<Event>& events) {
  std::string said;
  for (const Event& one : events)
    if (one.kind == "push")
      said += event("push", dump({{"push", one.n}, {"payload", Json::parse(one.json, nullptr, false)}}), one.n);
  return said;
}

}  // namespace tarvo::sandbox::live
