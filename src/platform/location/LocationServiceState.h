#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include <tarvo/platform/LocationService.h>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/SerialQueue.h"
#include "platform/location/LocationClient.h"
#include "platform/location/RegionMonitor.h"

namespace tarvo::platform {

/// What `LocationService::Statistics` tells. Threads: any.
struct FixCounters {
  std::atomic<std::uint64_t> received{0}, notFinite{0}, offTheGlobe{0}, impossibleTime{0}, filteredByDistance{0};
  std::atomic<double> latest{std::numeric_limits<double>::infinity()}, silence{0};  ///< monotonic seconds; seconds
};

/// The inside of the process's `LocationService`, which the managers share.
///
/// Threads: any. What has to be told is posted to the delivery queue while the lock is held, so that it is told in the
/// order in which it happened; the posted blocks take the lock only to read, never around a delegate call. Lives as
/// long as the process.
class LocationServiceState {
 public:
  static LocationServiceState& shared();

  FixCounters counters;

  void add(const std::shared_ptr<LocationClient>& client);
  std::optional<CLLocation> latest() const;
  void forgetLatest();
  Permission permission() const;
  std::vector<CLCircularRegion> regions() const;
  LocationService::Rules rules() const;

  /// Fixes that have been found usable; at least one.
  void deliver(std::vector<CLLocation> fixes);
  void setStatus(CLAuthorizationStatus status);
  void setRules(LocationService::Rules rules);
  void setCapabilities(LocationService::Capabilities capabilities);
  void postStatus(std::shared_ptr<LocationClient> client);
  void postDenialIfRefused(std::shared_ptr<LocationClient> client);
  void postKnownFix(std::shared_ptr<LocationClient> client);
  void postFailure(std::int64_t code);
  /// Returns once what was posted before has been told. The lock must not be held.
  void waitForDeliveries() {
    deliveries_.syncReentrant([] {});
  }
  /// Runs the block on the delivery queue once what was posted before has been told.
  void afterDeliveries(std::function<void()> block) { deliveries_.async(std::move(block)); }
  void startRequest(const std::shared_ptr<LocationClient>& client);
  void startRegion(std::shared_ptr<LocationClient> client, const CLCircularRegion& region);
  void stopRegion(const CLCircularRegion& region);
  /// Has the host ask its user where the answer is open, one question at a time.
  void ask(AuthorizationRequest request);
  void setPrompt(std::function<void(AuthorizationRequest)> prompt);
  void setSource(std::shared_ptr<LocationSource> source);
  /// After any call that may change who needs fixes.
  void demandMayHaveChanged();

 private:
  /// From the request until `setStatus` brings an answer.
  struct Question {
    AuthorizationRequest asked;
    AuthorizationRequest wanted;  ///< the latest request
    bool isPosed = false;         ///< the prompt has been called
  };

  LocationServiceState();
  std::vector<std::shared_ptr<LocationClient>> clients() const;
  void process(const FixBatch& batch);
  void hand(const FixBatch& batch, const Permission& allowed);
  /// On the delivery queue: switches the source by what is needed now.
  void followDemand();
  /// On the main queue: calls the prompt, unless the question has been answered meanwhile.
  void pose(AuthorizationRequest request);
  /// The best accuracy that anybody needs; absent when nobody needs fixes.
  std::optional<double> demand() const;

  mutable Mutex mutex_;
  LocationService::Capabilities capabilities_ GUARDED_BY(mutex_);
  LocationService::Rules rules_ GUARDED_BY(mutex_);
  CLAuthorizationStatus status_ GUARDED_BY(mutex_);
  std::function<void(AuthorizationRequest)> prompt_ GUARDED_BY(mutex_);
  std::optional<Question> question_ GUARDED_BY(mutex_);
  bool askedAlways_ GUARDED_BY(mutex_);
  std::optional<CLLocation> latest_ GUARDED_BY(mutex_);
  std::uint64_t batches_ GUARDED_BY(mutex_) = 0;
  std::vector<std::weak_ptr<LocationClient>> clients_ GUARDED_BY(mutex_);
  RegionMonitor regions_ GUARDED_BY(mutex_);
  std::shared_ptr<LocationSource> source_ GUARDED_BY(mutex_);
  std::shared_ptr<LocationSource> running_;  ///< delivery queue only, as is the next
  std::optional<double> runningAccuracy_;
  Mutex persisting_;  ///< held while a status is set and stored; taken before `mutex_`
  SerialQueue deliveries_{"platform.location"};
};

}  // namespace tarvo::platform
