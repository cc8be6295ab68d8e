#include "engine/PositionWriter.h"

#include <tarvo/ActivationMode.h>

#include "log/Log.h"
#include "platform/location/Geodesy.h"
#include "settings/Settings.h"
#include "store/Locations.h"

namespace tarvo {

void PositionWriter::addNewLocationToDatabase(std::vector<platform::CLLocation> locations, std::string_view activity,
                                              std::string_view method, std::string_view serviceaction) {
  Log::debug("LocationManager:addNewLocationToDatabase [loc] loc:", locations.size(), " mainThread:", mainThread());
  if (Settings::shared().activateStatus.get() < mode::kLocalForeground) return;
  queues_.serialQueueLocation.async([this, locations = std::move(locations), activity = std::string(activity),
                                     method = std::string(method), serviceaction = std::string(serviceaction)] {
    auto& context = store_.managedObjectContext();
    context.performAndWait([&] {
      for (const auto& location : locations) {
        Log::debug("LocationManager:addNewLocationToDatabase [loc] loc:", location, " mainThread:", mainThread());
        if (Locations::addLocation(location, activity, method, context, serviceaction)) store_.saveContext();
      }
    });
  });
}

}  // namespace tarvo
