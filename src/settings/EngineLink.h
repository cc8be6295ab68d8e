#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <tarvo/Health.h>
#include <tarvo/platform/Date.h>
#include <tarvo/platform/Value.h>

namespace tarvo {

class NetworkManager;

/// How the post of a batch has ended.
struct BatchEnd {
  bool confirmed = false;  ///< whether it was posted under `DeliveryOptions::confirmed`
  bool answered = false;   ///< a complete answer came, whatever it says
  DeliveryError error = DeliveryError::none;
  std::optional<platform::Seconds> retryAfter{};  ///< as the answer asks
  std::uint64_t bytes = 0;  ///< sent and received for batches since the end of the one before; 0 while nobody counts
};

/// What lower floors ask of the engine, which stands above them: the store and the backend's clients. One answerer for
/// the process.
///
/// Threads: any unless said otherwise. Installed by the engine before its user check; lives as long as the process.
class EngineLink {
 public:
  virtual ~EngineLink() = default;

  /// The engine if there is one, else a null pointer; never builds one.
  static EngineLink* installed() { return installed_.load(); }
  static void install(EngineLink* link) { installed_.store(link); }
  /// The engine. Without one this builds it, so never ask inside a block of the store's context. Defined on the
  /// engine's floor.
  static EngineLink& current();

  /// The engine's own client: what background sessions tell goes to it, whichever client has opened them.
  virtual NetworkManager& client() = 0;

  /// Acknowledges a batch inside a block of the store context; waits for it.
  virtual void acknowledge(const std::string& locationIndex, const std::string& firstLoc, const BatchEnd& end) = 0;
  /// A batch has ended without acknowledgement; to be told before the upload channel is free again.
  virtual void batchFailed(const BatchEnd& end) = 0;
  /// Starts one upload pass: the next batch, if the upload channel is free. Also inside a block of the store context.
  virtual void startPass() = 0;

  /// Stores the user that the backend has just issued; waits for it.
  virtual void storeUser(const std::string& uuid, const std::string& creationDate) = 0;
  virtual bool alreadyReceivedUUID() const = 0;
  virtual void setAlreadyReceivedUUID(bool received) = 0;

  /// The newest stored past trip, which may have no identifier.
  struct NewestTrip {
    bool exists = false;
    std::optional<std::int64_t> pasttripID;
  };
  virtual NewestTrip newestTrip() = 0;
  /// Queue the ingest on the queues of trips and places; return at once.
  virtual void submitLastTrips(std::vector<platform::Dictionary> trips) = 0;
  virtual void submitPOIs(std::vector<platform::Dictionary> pois) = 0;
  /// A prediction has been stored; returns at once, the host is told on the queue of backend replies.
  virtual void predictionStored() = 0;

 private:
  inline static std::atomic<EngineLink*> installed_{nullptr};
};

}  // namespace tarvo
