#pragma once

#include <string_view>
#include <vector>

#include <tarvo/platform/CLLocation.h>

#include "engine/EngineState.h"
#include "store/ObjectStore.h"

namespace tarvo {

/// Turns fixes into stored positions, one save each.
///
/// Threads: any; returns at once, the writing happens on `serialQueueLocation` inside blocks of the store's context.
/// Errors: never throws; a position that cannot be stored is logged and the rest of the batch goes on.
class PositionWriter {
 public:
  PositionWriter(EngineQueues& queues, ObjectStore& store) : queues_(queues), store_(store) {}

  /// Writes nothing while the SDK is not activated.
  void addNewLocationToDatabase(std::vector<platform::CLLocation> locations, std::string_view activity,
                                std::string_view method, std::string_view serviceaction);

 private:
  EngineQueues& queues_;
  ObjectStore& store_;
};

}  // namespace tarvo
