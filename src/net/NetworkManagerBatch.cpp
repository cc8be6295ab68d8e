#include <tarvo/ActivationMode.h>
#include <tarvo/NetworkManager.h>

#include <utility>

#include <tarvo/platform/UserDefaults.h>

#include "log/Log.h"
#include "net/ClientState.h"
#include "net/Messages.h"
#include "platform/foundation/FaultPoint.h"
#include "records/LatestPrediction.h"
#include "settings/EngineLink.h"

// Posting a batch of positions is also how the backend is polled: its answer carries the counters of what it holds.

namespace tarvo {
namespace {

using platform::Value;

constexpr CallTexts kBatch{.parse = "NetworkManager:sendDataInBatchToRemoteWebServer :[error] : ",
                           .success = "NetworkManager:sendDataInBatchToRemoteWebServer [net] [succes] jsonData:"};

std::string printedByteCount(const std::optional<std::string>& data) {
  return data ? platform::concat("Optional(", data->size(), " bytes)") : "nil";
}

/// Starts what the counters call for. Each is typed only when its turn has come, so a bad one stops the process after
/// the downloads before it have started.
void followCounters(NetworkManager& client, const Value& predictionID, const Value& tripID, const Value& poiID,
                    std::int64_t poiVersionWhenSent) {
  if (requireInteger(predictionID, "last_prediction_id") != latestPrediction().get().id) client.getNextTrip();

  // Set before the download has begun: the same counter again starts no second one.
  const std::int64_t announced = requireInteger(tripID, "last_pasttrip_id");
  if (Settings::shared().lastTripID.exchange(announced) != announced) client.getLocationHistoryEXTRAPOLATED();
  platform::faultPoint("downloads: trips asked for");

  // The version is kept at once. A failed download puts it back to 0, and cannot do so before this: its completion
  // waits for the end of the one that is running here.
  const std::int64_t poiVersion = requireInteger(poiID, "last_poi_id");
  if (poiVersion != poiVersionWhenSent) {
    client.getPOI();
    platform::faultPoint("downloads: places asked for");
    client.defaults().set(NetworkManager::LAST_POI_VERSION, poiVersion);
    platform::faultPoint("downloads: version of places kept");
  }
}

/// Asks again for what is still pending; only the answers take entries from the lists.
void replaySubscriptions(NetworkManager& client) {
  for (const auto& [name, notification] : Settings::shared().subscriptions.get())
    client.subscriptionRegiter(name, notification);
  for (const auto& name : Settings::shared().unsubscriptions.get()) client.subscriptionUnRegister(name);
}

void followAnswer(NetworkManager& client, Reply& reply, std::int64_t poiVersionWhenSent) {
  Log::debug("NetworkManager:sendDataInBatchToRemoteWebServer [net] [succes] Data:", printedByteCount(reply.data));
  const auto answer = acceptedAnswer(kBatch, reply);
  if (!answer) return;
  const Value* predictionID = find(*answer, "last_prediction_id");
  const Value* tripID = find(*answer, "last_pasttrip_id");
  const Value* poiID = find(*answer, "last_poi_id");
  if (predictionID == nullptr || tripID == nullptr || poiID == nullptr) return;
  Log::debug("NetworkManager:sendDataInBatchToRemoteWebServer [net] [succes] last_prediction_id:", *predictionID,
             " , last_trip_id:", *tripID, ", last_poi_id", *poiID);
  followCounters(client, *predictionID, *tripID, *poiID, poiVersionWhenSent);
  replaySubscriptions(client);
}

}  // namespace

void NetworkManager::sendDataInBatchToRemoteWebServer(std::string json, const std::string& first,
                                                      const std::string& last) {
  const std::int64_t poiVersion = defaults().integer(LAST_POI_VERSION);
  auto batch = state_->request("POST", endpoints::positionsAPI, std::move(json));
  // Whoever posts while another batch is under way repeats it: the channel was stale, or the host asks for it.
  batch.replacesOlder = true;
  state_->start(
      std::move(batch), [poiVersion, locationIndex = last, firstLoc = first](NetworkManager& self, Reply& reply) {
        platform::faultPoint("upload: answered");
        if (reply.refused()) {
          Log::debug(" NetworkManager:sendDataInBatchToRemoteWebServer : httpstatus : ", reply.response->statusCode,
                     " :réponse = ", reply.response->debugDescription());
          Settings::shared().uploadChannel.release();
        } else {
          // Without any response the line says 200 too, and the batch counts as acknowledged: intended, the pipeline
          // moves on and does not hold the positions back.
          Log::debug(" NetworkManager:sendDataInBatchToRemoteWebServer : httpstatus : 200");
          if (Settings::shared().activateStatus.get() >= mode::kBackendGeoprofile)
            followAnswer(self, reply, poiVersion);
          EngineLink::current().acknowledge(locationIndex, firstLoc);
          platform::faultPoint("acknowledgement: saved");
        }
        if (reply.error)
          Log::error("NetworkManager:sendDataInBatchToRemoteWebServer :[error] :", printedDescription(*reply.error));
      });
}

}  // namespace tarvo
