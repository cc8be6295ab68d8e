#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/FlushResult.h>

#include "settings/EngineLink.h"
#include "store/Ledger.h"
#include "store/Locations.h"
#include "store/ObjectStore.h"
#include "sync/UploadGate.h"

namespace tarvo {

class DeviceRegistration;
class NetworkManager;

/// Moves stored positions to the backend, at most 1000 in a batch, one batch in flight, those that await their
/// acknowledgement before new ones. Only what is in the store's file is sent: a number that the backend knows must not
/// go to another position after a restart.
///
/// Threads: any; store work runs in blocks of the context, and the pass that an acknowledgement starts runs inside
/// its block. A pass never hops onto a queue of the engine and never waits for an answer.
/// Owns nothing. Errors: never throws; a pass that cannot send leaves the upload channel free or held as each
/// operation says, and the next event tries again.
class UploadPipeline {
 public:
  UploadPipeline(ObjectStore& store, NetworkManager& client, DeviceRegistration& registration, Ledger& ledger);

  /// One upload pass: takes the channel if it is free or stale (180 s) and posts what comes first. Does nothing, and
  /// writes no line, while the host's options hold it back.
  void startPass(UploadGate::Pass pass = UploadGate::Pass::event);

  /// Posts the oldest positions that were never posted and queues their marks. Frees the channel when there are none;
  /// without an identity the device is registered instead and the channel stays held.
  void sendAllUnsentDataToRemoteWebServer();

  /// Posts these positions again, unless the backend is out of reach; the channel then stays held.
  void resendAllSentWithoutACKData(const Locations::List& positions);
  /// The same with copies: of the 1000 oldest which still await those from the first to the last of these, by index.
  /// None is left out in between, since the answer acknowledges all.
  void resendAllSentWithoutACKData(const std::vector<LocationRecord>& positions);

  /// The acknowledgement of a batch, given as texts: its last index, then its first. Waits for it; the pass that
  /// follows runs inside the same block of the context.
  void acknowledge(std::string_view locationIndex, std::string_view firstLoc, const BatchEnd& end);
  /// A batch has ended without acknowledgement. The channel is the caller's to free, after this.
  void batchFailed(const BatchEnd& end);

  /// Lets go of the posted batch and of what is counted here. Inside a block of the context.
  void forget();

  /// Set by a session error and never cleared: no batch starts until the process is started anew.
  std::atomic<bool> networkManagerReceivedSessionError{false};

  std::uint64_t batchesPosted() const { return batchesPosted_.load(); }
  std::uint64_t positionsPosted() const { return positionsPosted_.load(); }
  /// Sent and received for batches on metered networks, as far as somebody counts.
  std::uint64_t bytesToday() const { return gate_.bytesToday(); }
  /// Ends the wait after failures, as a pass of the host does.
  void endWait() { (void)mayStart(UploadGate::Pass::host); }
  /// What keeps every pass from posting, however long one waits; absent when nothing does. Asks no store.
  std::optional<FlushResult> obstacle() const;
  /// Until when events wait because of failures; absent when they do not.
  std::optional<platform::Date> nextTry() const;

 private:
  bool mayStart(UploadGate::Pass pass);
  /// Tells the host once when the backend does not accept who is asking, and once when it does again.
  void tellAccepted(bool accepted);
  /// The user's identifier while uploads are possible; else checks the user.
  std::optional<std::string> userOrRegistration();
  // Only inside a block of the context; what they give is to be posted.
  Locations::List getSentWithoutACKLocations();
  Locations::List getUnsentLocations();
  void markLocationAsSentWithoutACKWithID(const platform::NSManagedObjectID& locationID);
  /// With confirmed delivery: what is to be posted, up to this number, is on the disk before; a number that the backend
  /// has must not go to another position after a power cut either. Inside a block of the context.
  void keep(std::int64_t last);
  void post(std::string json, std::int64_t first, std::int64_t last, std::size_t positions);

  ObjectStore& store_;
  NetworkManager& client_;
  DeviceRegistration& registration_;
  Ledger& ledger_;
  UploadGate gate_;
  std::atomic<bool> accepted_{true};
  /// The batch that was posted last, held so that its marks and its acknowledgement need not read its positions from
  /// the file again. Touched only inside blocks of the context.
  Locations::List posted_;
  std::int64_t keptUpTo_ = -1;  ///< the highest number that was flushed; touched only inside blocks of the context
  bool acknowledgesFullBatch_ = false;  ///< meanwhile; touched only inside blocks of the context
  std::atomic<std::uint64_t> batchesPosted_{0};
  std::atomic<std::uint64_t> positionsPosted_{0};
};

}  // namespace tarvo
