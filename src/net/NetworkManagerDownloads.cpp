#include <utility>

#include <tarvo/NetworkManager.h>
#include <tarvo/platform/UserDefaults.h>

#include "log/Log.h"
#include "net/ClientState.h"
#include "net/Messages.h"
#include "net/ProtocolBreak.h"
#include "records/LatestPrediction.h"
#include "settings/EngineLink.h"

namespace tarvo {
namespace {

using platform::Dictionary;
using platform::Value;

constexpr CallTexts kPrediction{.status = "NetworkManager:getNextTrip : httpStatus ",
                                .response = " réponse = ",
                                .error = "NetworkManager:getNextTrip :[error] :",
                                .parse = "NetworkManager:getNextTrip :[error] : ",
                                .success = "NetworkManager:getNextTrip [net] [succes] jsonData:"};
constexpr CallTexts kPastTrips{.status = "NetworkManager:getLocationHistoryEXTRAPOLATED : httpStatus ",
                               .response = " réponse = ",
                               .error = "NetworkManager:getLocationHistoryEXTRAPOLATED :[error] :",
                               .parse = "NetworkManager:getLocationHistoryEXTRAPOLATED :[error] : ",
                               .success = "NetworkManager:getLocationHistoryEXTRAPOLATED [net] [succes] jsonData:"};
constexpr CallTexts kPlaces{.status = "NetworkManager:getPOI : httpStatus ",
                            .response = " réponse = ",
                            .error = "NetworkManager:getPOI :[error] :",
                            .parse = "NetworkManager:getPOI :[error] : ",
                            .success = "NetworkManager:getPOI [net] [succes] jsonData:"};

/// The objects under the key of an accepted answer; absent without answer or key.
std::optional<std::vector<Dictionary>> objectsIn(std::optional<Dictionary> answer, std::string_view key) {
  if (!answer) return std::nullopt;
  const auto list = answer->find(key);
  if (list == answer->end()) return std::nullopt;
  return requireObjects(std::move(list->second), key);
}

/// All eleven values or nothing; those of another type break the protocol.
void storePrediction(Dictionary answer) {
  for (const char* key : {"prediction_id", "start_time", "arrival_time", "probability", "destination_lon",
                          "destination_lat", "route", "destination_json", "start_name", "arrival_name", "duration"}) {
    if (find(answer, key) == nullptr) return;
  }
  const auto value = [&answer](const char* key) -> Value& { return answer.find(key)->second; };
  Log::debug("NetworkManager:getNextTrip [net] [succes] prediction_id:", value("prediction_id"), " startTime ",
             value("start_time"));
  Trip trip;
  trip.id = requireInteger(value("prediction_id"), "prediction_id");
  trip.ArrivalTime = requireText(value("arrival_time"), "arrival_time");
  trip.startTime = requireText(value("start_time"), "start_time");
  trip.probability = requireNumber(value("probability"), "probability");
  trip.destination_lat = requireNumber(value("destination_lat"), "destination_lat");
  trip.destination_lon = requireNumber(value("destination_lon"), "destination_lon");
  trip.next_destination = requireObject(std::move(value("destination_json")), "destination_json");
  trip.route = requireObject(std::move(value("route")), "route");
  trip.arrival_name = requireText(value("arrival_name"), "arrival_name");
  trip.start_name = requireText(value("start_name"), "start_name");
  trip.duration = requireNumber(value("duration"), "duration");
  const std::string lines[] = {
      platform::concat("NetworkManager:getNextTrip :[Tarvo.LastPrediction.start_name] : ", trip.start_name,
                       " [Tarvo.LastPrediction.arrival_name] : ", trip.arrival_name),
      platform::concat("NetworkManager:getNextTrip :[Tarvo.LastPrediction.duration] : ", trip.duration),
      platform::concat("NetworkManager:getNextTrip :[Tarvo.LastPrediction.route] : ", trip.route)};
  latestPrediction().set(std::move(trip));
  // Level of errors although nothing is wrong: the readers of the log look for them there.
  for (const std::string& line : lines) Log::error(line);
  EngineLink::current().predictionStored();
}

/// The identifier that the past trips are asked from; absent when there is nothing to ask for.
std::optional<std::int64_t> firstTripToAskFor(std::int64_t announced) {
  std::int64_t first = 0;
  if (const auto newest = EngineLink::current().newestTrip(); newest.exists) {
    if (!newest.pasttripID) protocolBreak("the newest past trip has no identifier");
    first = *newest.pasttripID;
  }
  if (first == announced) return std::nullopt;
  return first;
}

}  // namespace

void NetworkManager::getNextTrip() {
  Log::error("NetworkManager:getNextTrip :[called]");
  state_->start(state_->request("GET", endpoints::tripAPI), [](NetworkManager&, Reply& reply) {
    if (auto answer = readAnswer(kPrediction, reply)) storePrediction(std::move(*answer));
  });
}

void NetworkManager::getLocationHistoryEXTRAPOLATED() {
  if (!Settings::shared().userUUID.get()) return;
  const std::int64_t last = LAST_TRIP_ID();
  std::optional<std::int64_t> first;
  droppingProtocolBreaks([&] { first = firstTripToAskFor(last); });
  if (!first) return;
  const std::string path =
      platform::concat(endpoints::locationHistoryAPI, "?first_pasttrip_id=", *first, "&last_pasttrip_id=", last);
  Log::debug("NetworkManager:getLocationHistoryEXTRAPOLATED [api] ", path, " ");
  state_->start(state_->request("GET", path), [](NetworkManager&, Reply& reply) {
    if (auto trips = objectsIn(readAnswer(kPastTrips, reply), "trips"))
      EngineLink::current().submitLastTrips(std::move(*trips));
  });
}

void NetworkManager::getPOI() {
  Log::debug("NetworkManager:getPOI : called");
  state_->start(state_->request("GET", endpoints::poiAPI), [](NetworkManager& self, Reply& reply) {
    logFailure(kPlaces, reply);
    // Forgets the version, so that a later batch asks again.
    if (reply.refused() || reply.error) self.defaults().set(LAST_POI_VERSION, 0);
    if (reply.error) return;
    if (auto pois = objectsIn(acceptedAnswer(kPlaces, reply), "pois"))
      EngineLink::current().submitPOIs(std::move(*pois));
  });
}

}  // namespace tarvo
