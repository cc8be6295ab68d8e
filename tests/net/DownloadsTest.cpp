#include "ClientTest.h"
#include "records/LatestPrediction.h"

namespace tarvo::test {
namespace {

struct Downloads : ClientTest {
  Downloads() { identify(); }
};

TEST_F(Downloads, AskForTripsOnlyWhenTheNewestIsNotTheAnnouncedOne) {
  const std::tuple<std::optional<std::int64_t>, std::int64_t, const char*> cases[] = {
      {{}, 0, ""},
      {7, 7, ""},
      {{}, 42, "GET pasttrips?first_pasttrip_id=0&last_pasttrip_id=42"},
      {7, 9, "GET pasttrips?first_pasttrip_id=7&last_pasttrip_id=9"},
      {9, 7, "GET pasttrips?first_pasttrip_id=9&last_pasttrip_id=7"}};
  for (const auto& [newest, announced, request] : cases) {
    engine.newest = {newest.has_value(), newest};
    settings.lastTripID.set(announced);
    call(&NetworkManager::getLocationHistoryEXTRAPOLATED);
    EXPECT_EQ(backend.takeTargets(), request) << announced;
  }
  engine.newest = {true, std::nullopt};
  EXPECT_DEATH(client().getLocationHistoryEXTRAPOLATED(), "no identifier");
  settings.userUUID.set(std::nullopt);
  client().getLocationHistoryEXTRAPOLATED();
  EXPECT_TRUE(platform::WorkInFlight::waitUntilIdle(platform::Seconds(0)));
}

TEST_F(Downloads, HandPlacesOverWhateverTheStatusAndForgetTheirVersionOnFailure) {
  const std::string two = R"({"success":true,"pois":[{"id":1},{"id":2}]})";
  const std::tuple<Backend::Answer, std::size_t, std::int64_t> cases[] = {
      {{200, two}, 1, 5},
      {{500, two}, 1, 0},
      {{500, ""}, 0, 0},
      {{200, "lost", {}, /*broken=*/true}, 0, 0},
      {{200, "nonsense"}, 0, 5},
      {{200, R"({"success":false,"pois":[]})"}, 0, 5},
      {{200, R"({"success":true})"}, 0, 5}};
  LogDiary& log = LogDiary::installed();
  for (const auto& [answer, handedOver, versionAfter] : cases) {
    log.clear();
    defaults.set("poi_version", 5);
    backend.answer("pois", answer);
    call(&NetworkManager::getPOI);
    EXPECT_EQ(log.count("engine: pois 2"), handedOver) << answer.status << answer.body;
    EXPECT_EQ(defaults.integer("poi_version"), versionAfter) << answer.status << answer.body;
  }
}

TEST_F(Downloads, HandTripsOverWhateverTheStatus) {
  settings.lastTripID.set(3);
  backend.answer("pasttrips", {500, R"({"success":true,"trips":[]})"});
  LogDiary::installed();
  call(&NetworkManager::getLocationHistoryEXTRAPOLATED);
  expectInOrder({"NetworkManager:getLocationHistoryEXTRAPOLATED : httpStatus 500 réponse = <NSHTTPURLResponse>",
                 "EXTRAPOLATED [net] [succes] jsonData:[\"success\": true, \"trips\": []]", "engine: trips 0"});
}

const char* const kPrediction =
    R"({"success":true,"prediction_id":8,"start_time":"s","arrival_time":"a","probability":1,"destination_lon":2.5,)"
    R"("destination_lat":48,"route":{"r":1},"destination_json":{"d":2},"start_name":"Home","arrival_name":"Work",)"
    R"("duration":12.5)";

TEST_F(Downloads, StoreAPredictionWholeOrNotAtAll) {
  LogDiary& log = LogDiary::installed();
  const std::string lacksOne = std::string(kPrediction).replace(std::string(kPrediction).find("duration"), 8, "other");
  backend.answer("predictions", {200, lacksOne + "}"});
  call(&NetworkManager::getNextTrip);
  EXPECT_EQ(latestPrediction().get().id, 0);
  EXPECT_EQ(log.count("engine: prediction"), 0u);

  backend.answer("predictions", {200, std::string(kPrediction) + "}"});
  call(&NetworkManager::getNextTrip);
  const Trip trip = latestPrediction().get();
  EXPECT_EQ(platform::concat("trip ", trip.id, " from ", trip.startTime, " to ", trip.ArrivalTime, ", ", trip.duration,
                             " min, probability ", trip.probability, ", at ", trip.destination_lat, " ",
                             trip.destination_lon, ", route ", trip.route, ", place ", trip.next_destination),
            R"(trip 8 from s to a, 12.5 min, probability 1, at 48 2.5, route ["r": 1], place ["d": 2])");
  expectInOrder({"getNextTrip [net] [succes] prediction_id:8 startTime s",
                 "[Tarvo.LastPrediction.start_name] : Home [Tarvo.LastPrediction.arrival_name] : Work",
                 "[Tarvo.LastPrediction.duration] : 12.5", "[Tarvo.LastPrediction.route] : [\"r\": 1]",
                 "engine: prediction"});
}

}  // namespace
}  // namespace tarvo::test
