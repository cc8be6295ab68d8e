#include <tarvo/ActivationMode.h>
#include <tarvo/NetworkManager.h>

#include <atomic>
#include <memory>
#include <utility>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/UserDefaults.h>

#include "log/Log.h"
#include "net/ClientState.h"
#include "net/Messages.h"
#include "net/ProtocolBreak.h"
#include "records/LatestPrediction.h"
#include "settings/EngineLink.h"

// Posting a batch of positions is also how the backend is polled: its answer carries the counters of what it holds.

namespace tarvo {
namespace {

using platform::Value;

constexpr CallTexts kBatch{.parse = "NetworkManager:sendDataInBatchToRemoteWebServer :[error] : ",
                           .success = "NetworkManager:sendDataInBatchToRemoteWebServer [net] [succes] jsonData:"};
/// In a mode that reads the answer for nothing but its confirmation.
constexpr CallTexts kConfirmation{.parse = kBatch.parse};

/// Of all batches: those that a copy has replaced are told with the next one that ends.
const std::shared_ptr<std::atomic<std::uint64_t>>& bytesMoved() {
  static const auto* bytes = new auto(std::make_shared<std::atomic<std::uint64_t>>(0));
  return *bytes;
}

/// A batch under way, with the rules that held when it was posted.
struct Batch {
  std::string url, first, last;
  std::int64_t poiVersion = 0;
  bool confirmed = false;
};

DeliveryError classOf(const platform::Error& error) {
  namespace urlError = platform::urlError;
  switch (error.code) {
    case urlError::notConnectedToInternet:
      return DeliveryError::offline;
    case urlError::cannotFindHost:
    case urlError::cannotConnectToHost:
      return DeliveryError::unreachable;
    case urlError::timedOut:
      return DeliveryError::timedOut;
    case urlError::secureConnectionFailed:
    case urlError::serverCertificateUntrusted:
      return DeliveryError::untrusted;
    case urlError::tooManyRedirects:
      return DeliveryError::redirected;
    default:
      return DeliveryError::broken;
  }
}

BatchEnd endOf(const Batch& batch, const Reply& reply) {
  BatchEnd end{.confirmed = batch.confirmed, .answered = reply.response && !reply.error};
  end.bytes = bytesMoved()->exchange(0);
  if (reply.response) end.retryAfter = platform::retryAfter(*reply.response, platform::Clock::current()->now());
  const int status = reply.response ? reply.response->statusCode : 0;
  if (reply.refused() && (reply.response->url != batch.url || (status >= 300 && status < 400)))
    end.error = DeliveryError::redirected;
  else if (status == 401 || status == 403)
    end.error = DeliveryError::unauthorized;
  else if (reply.refused())
    end.error = status == 429 || end.retryAfter ? DeliveryError::throttled : DeliveryError::refused;
  else if (reply.error)
    end.error = classOf(*reply.error);
  return end;
}

std::string printedByteCount(const std::optional<std::string>& data) {
  return data ? platform::concat("Optional(", data->size(), " bytes)") : "nil";
}

/// Starts what the counters call for. Each is typed only when its turn has come, so a bad one breaks the protocol after
/// the downloads before it have started.
void followCounters(NetworkManager& client, const Value& predictionID, const Value& tripID, const Value& poiID,
                    std::int64_t poiVersionWhenSent) {
  if (requireInteger(predictionID, "last_prediction_id") != latestPrediction().get().id) client.getNextTrip();

  // Set before the download has begun: the same counter again starts no second one.
  const std::int64_t announced = requireInteger(tripID, "last_pasttrip_id");
  if (Settings::shared().lastTripID.exchange(announced) != announced) client.getLocationHistoryEXTRAPOLATED();

  // The version is kept at once. A failed download puts it back to 0, and cannot do so before this: its completion
  // waits for the end of the one that is running here.
  const std::int64_t poiVersion = requireInteger(poiID, "last_poi_id");
  if (poiVersion != poiVersionWhenSent) {
    client.getPOI();
    client.defaults().set(NetworkManager::LAST_POI_VERSION, poiVersion);
  }
}

/// Asks again for what is still pending; only the answers take entries from the lists.
void replaySubscriptions(NetworkManager& client) {
  for (const auto& [name, notification] : Settings::shared().subscriptions.get())
    client.subscriptionRegiter(name, notification);
  for (const auto& name : Settings::shared().unsubscriptions.get()) client.subscriptionUnRegister(name);
}

void followAnswer(NetworkManager& client, const platform::Dictionary& answer, std::int64_t poiVersionWhenSent) {
  const Value* predictionID = find(answer, "last_prediction_id");
  const Value* tripID = find(answer, "last_pasttrip_id");
  const Value* poiID = find(answer, "last_poi_id");
  if (predictionID == nullptr || tripID == nullptr || poiID == nullptr) return;
  Log::debug("NetworkManager:sendDataInBatchToRemoteWebServer [net] [succes] last_prediction_id:", *predictionID,
             " , last_trip_id:", *tripID, ", last_poi_id", *poiID);
  followCounters(client, *predictionID, *tripID, *poiID, poiVersionWhenSent);
  replaySubscriptions(client);
}

/// Reads the answer of a batch and follows it, as far as mode and batch call for it. Answers whether it confirms the
/// batch.
bool readAnswerOf(const Batch& batch, NetworkManager& client, Reply& reply) {
  const bool isFollowed = Settings::shared().activateStatus.get() >= mode::kBackendGeoprofile;
  if (isFollowed)
    Log::debug("NetworkManager:sendDataInBatchToRemoteWebServer [net] [succes] Data:", printedByteCount(reply.data));
  std::optional<platform::Dictionary> answer;
  droppingProtocolBreaks([&] {
    if (batch.confirmed)
      answer = acceptedAnswer(isFollowed ? kBatch : kConfirmation, reply, WrongSuccess::isFailure);
    else if (isFollowed)
      answer = acceptedAnswer(kBatch, reply);
    if (isFollowed && answer) followAnswer(client, *answer, batch.poiVersion);
  });
  return answer.has_value();
}

/// The positions stay, and go with a later pass.
void fail(const BatchEnd& end) {
  if (end.confirmed)
    Log::debug("NetworkManager:sendDataInBatchToRemoteWebServer [net] not confirmed, mainThread:", mainThread());
  if (EngineLink* engine = EngineLink::installed()) engine->batchFailed(end);
  Settings::shared().uploadChannel.release();
}

void batchEnded(const Batch& batch, NetworkManager& client, Reply& reply) {
  BatchEnd end = endOf(batch, reply);
  if (reply.refused()) {
    Log::debug(" NetworkManager:sendDataInBatchToRemoteWebServer : httpstatus : ", reply.response->statusCode,
               " :réponse = ", reply.response->debugDescription());
    fail(end);
  } else if (batch.confirmed && !end.answered) {
    fail(end);
  } else {
    // Without any response the line says 200 too, and the batch counts as acknowledged: intended, the pipeline
    // moves on and does not hold the positions back, unless the host wants them confirmed.
    Log::debug(" NetworkManager:sendDataInBatchToRemoteWebServer : httpstatus : 200");
    if (!readAnswerOf(batch, client, reply) && batch.confirmed) {
      end.error = DeliveryError::rejected;
      fail(end);
    } else {
      EngineLink::current().acknowledge(batch.last, batch.first, end);
    }
  }
  if (reply.error)
    Log::error("NetworkManager:sendDataInBatchToRemoteWebServer :[error] :", printedDescription(*reply.error));
}

}  // namespace

void NetworkManager::sendDataInBatchToRemoteWebServer(std::string json, const std::string& first,
                                                      const std::string& last) {
  const std::int64_t poiVersion = defaults().integer(LAST_POI_VERSION);
  const DeliveryOptions options = Settings::shared().deliveryOptions.get();
  auto batch = state_->request("POST", endpoints::positionsAPI, std::move(json));
  // Whoever posts while another batch is under way repeats it: the channel was stale, or the host asks for it.
  batch.replacesOlder = true;
  batch.followsRedirects = !options.confirmed;
  if (options.networkIsMetered && options.meteredBytesPerDay) batch.bytesMoved = bytesMoved();
  Batch posted{batch.url, first, last, poiVersion, options.confirmed};
  state_->start(std::move(batch),
                [posted = std::move(posted)](NetworkManager& self, Reply& reply) { batchEnded(posted, self, reply); });
}

}  // namespace tarvo
