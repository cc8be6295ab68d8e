#include "sandbox/Canned.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "sandbox/wire/BoundedJson.h"

namespace tarvo::sandbox {
namespace {

using Json = nlohmann::ordered_json;

std::string objectText(const Json& json, const std::string& key) {
  if (!json.is_object()) throw std::runtime_error(key + ": expected an object");
  return json.dump();
}

std::vector<std::string> objectTexts(const Json& json, const std::string& key) {
  if (!json.is_array()) throw std::runtime_error(key + ": expected an array");
  std::vector<std::string> texts;
  for (const Json& element : json) texts.push_back(objectText(element, key + "[" + std::to_string(texts.size()) + "]"));
  return texts;
}

std::int64_t wholeNumber(const Json& json, const std::string& key) {
  if (!json.is_number_integer() || (json.is_number_unsigned() && json.get<std::uint64_t>() > INT64_MAX))
    throw std::runtime_error(key + ": expected a whole number");
  return json.get<std::int64_t>();
}

struct Trip {
  std::optional<std::int64_t> id;
  Json object;
};

Json object(const std::string& text, const char* what) {
  Json json = Json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!json.is_object()) throw std::runtime_error(std::string(what) + " is no JSON object: " + text);
  return json;
}

std::optional<std::int64_t> numberUnder(const Json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_number_integer()) return std::nullopt;
  if (found->is_number_unsigned() && found->get<std::uint64_t>() > INT64_MAX) return std::nullopt;
  return found->get<std::int64_t>();
}

std::string text(const Json& answer) { return answer.dump(-1, ' ', false, Json::error_handler_t::replace); }

}  // namespace

Canned parseCanned(std::string_view text) {
  const Json json = parseBoundedJson<Json>(text);
  if (!json.is_object()) throw std::runtime_error("expected a JSON object");
  Canned canned;
  for (const auto& [key, value] : json.items()) {
    if (key == "prediction")
      canned.prediction = objectText(value, key);
    else if (key == "trips")
      canned.trips = objectTexts(value, key);
    else if (key == "pois")
      canned.pois = objectTexts(value, key);
    else if (key == "poi_version")
      canned.poiVersion = wholeNumber(value, key);
    else if (key == "log_level")
      canned.logLevel = wholeNumber(value, key);
    else
      throw std::runtime_error("unknown key " + key);
  }
  return canned;
}

Canned readCanned(const std::filesystem::path& file) {
  const auto text = readRegularFile(file);
  if (!text) throw std::runtime_error(file.string() + ": cannot be read");
  try {
    return parseCanned(*text);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(file.string() + ": " + error.what());
  }
}

struct Derived::Content {
  std::optional<Json> prediction;
  std::vector<Trip> trips;  ///< by id
  Json pois = Json::array();
  Json configuration = Json::object();
  std::int64_t lastPrediction = 0, lastTrip = 0, poiVersion = 0;
};

Derived::Derived() : content_(std::make_unique<Content>()) {}

Derived::~Derived() = default;

void Derived::serve(const Canned& canned) {
  auto content = std::make_unique<Content>();
  if (canned.prediction) {
    content->prediction = object(*canned.prediction, "the prediction");
    content->lastPrediction = numberUnder(*content->prediction, "prediction_id").value_or(0);
    if (!content->prediction->contains("success")) (*content->prediction)["success"] = true;
  }
  for (const std::string& trip : canned.trips) {
    Json json = object(trip, "a trip");
    const auto id = numberUnder(json, "pasttrip_id");
    content->trips.push_back({id, std::move(json)});
  }
  std::stable_sort(content->trips.begin(), content->trips.end(),
                   [](const Trip& one, const Trip& other) { return one.id < other.id; });
  if (!content->trips.empty()) content->lastTrip = content->trips.back().id.value_or(0);
  for (const std::string& poi : canned.pois) content->pois.push_back(object(poi, "a place"));
  content->poiVersion = canned.poiVersion.value_or(static_cast<std::int64_t>(content->pois.size()));
  if (canned.lastPredictionID) content->lastPrediction = *canned.lastPredictionID;
  if (canned.lastPasttripID) content->lastTrip = *canned.lastPasttripID;
  if (canned.logLevel) content->configuration["log_level"] = *canned.logLevel;

  const std::lock_guard lock(mutex_);
  content_ = std::move(content);
  given_ = true;
  withoutHistory_.clear();
  withoutGeoProfile_.clear();
}

bool Derived::given() const {
  const std::lock_guard lock(mutex_);
  return given_;
}

void Derived::forgetHistory(const std::string& user) {
  const std::lock_guard lock(mutex_);
  withoutHistory_.insert(user);
}

void Derived::forgetGeoProfile(const std::string& user) {
  const std::lock_guard lock(mutex_);
  withoutGeoProfile_.insert(user);
}

std::string Derived::counters(const std::string& user) const {
  const std::lock_guard lock(mutex_);
  const bool history = !withoutHistory_.contains(user), profile = !withoutGeoProfile_.contains(user);
  return text({{"success", true},
               {"last_prediction_id", profile ? content_->lastPrediction : 0},
               {"last_pasttrip_id", history ? content_->lastTrip : 0},
               {"last_poi_id", profile ? content_->poiVersion : 0}});
}

std::string Derived::prediction(const std::string& user) const {
  const std::lock_guard lock(mutex_);
  if (content_->prediction && !withoutGeoProfile_.contains(user)) return text(*content_->prediction);
  return text({{"success", false}, {"error", "no prediction"}});
}

std::string Derived::pastTrips(const std::string& user, std::int64_t first, std::int64_t last) const {
  const std::lock_guard lock(mutex_);
  Json trips = Json::array();
  if (!withoutHistory_.contains(user))
    for (const Trip& trip : content_->trips)
      if (!trip.id || (first < *trip.id && *trip.id <= last)) trips.push_back(trip.object);
  return text({{"success", true}, {"trips", trips}});
}

std::string Derived::places(const std::string& user) const {
  const std::lock_guard lock(mutex_);
  return text({{"success", true}, {"pois", withoutGeoProfile_.contains(user) ? Json::array() : content_->pois}});
}

std::string Derived::configuration() const {
  const std::lock_guard lock(mutex_);
  return text({{"success", true}, {"results", Json::array({content_->configuration})}});
}

}  // namespace tarvo::sandbox
