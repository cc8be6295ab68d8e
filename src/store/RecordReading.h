#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <tarvo/LocationRecords.h>
#include <tarvo/Records.h>

#include "platform/persistence/NSManagedObjectContext.h"
#include "platform/persistence/StoredRows.h"
#include "store/Attributes.h"

namespace tarvo {

/// The objects of a request in their own class.
///
/// All objects of an entity are of the class that `setEntityClasses` gave it, so looking at the first one is enough.
template <class Class>
platform::Result<std::vector<std::shared_ptr<Class>>> fetchAs(platform::NSManagedObjectContext& context,
                                                              const platform::NSFetchRequest& request) {
  auto fetched = context.fetch(request);
  if (!fetched) return fetched.error();
  if (!fetched->empty() && dynamic_cast<Class*>(fetched->front().get()) == nullptr)
    platform::fatalError("an entity of the object model has not been given its class");
  std::vector<std::shared_ptr<Class>> objects;
  objects.reserve(fetched->size());
  for (auto& object : *fetched) objects.push_back(std::static_pointer_cast<Class>(std::move(object)));
  return objects;
}

/// A new object of the class's entity; a null pointer when the context makes none of that class.
template <class Class>
std::shared_ptr<Class> insertAs(platform::NSManagedObjectContext& context) {
  return std::dynamic_pointer_cast<Class>(context.insertNewObject(Class::kEntity));
}

inline std::optional<std::string> ownedText(std::optional<std::string_view> text) {
  if (!text) return std::nullopt;
  return std::string(*text);
}

/// A position as the host gets it, from an object, or from a row of which all attributes were read in their order.
template <class Position>
LocationRecord recordOf(const Position& position) {
  namespace at = attribute::locations;
  LocationRecord record;
  record.latitude = position.number(at::latitude);
  record.longitude = position.number(at::longitude);
  record.altitude = position.number(at::altitude);
  record.horizontalAccuracy = position.number(at::horizontalAccuracy);
  record.verticalAccuracy = position.number(at::verticalAccuracy);
  record.course = position.number(at::course);
  record.speed = position.number(at::speed);
  record.floor = position.integer(at::floor);
  record.locationTimestamp = position.date(at::locationTimestamp);
  record.eventTimestamp = position.date(at::eventTimestamp);
  record.index = position.integer(at::index);
  record.serviceAction = ownedText(position.string(at::serviceAction));
  record.localisationMethod = ownedText(position.string(at::localisationMethod));
  record.userAction = ownedText(position.string(at::userAction));
  record.appName = ownedText(position.string(at::appName));
  record.appAction = ownedText(position.string(at::appAction));
  record.identifierForVendor = ownedText(position.string(at::identifierForVendor));
  record.unsent = position.boolean(at::unsent);
  record.sentWithoutACK = position.boolean(at::sentWithoutACK);
  return record;
}

/// The positions of those rows, read from the store each time they are asked for.
LocationRecords storedPositions(platform::StoredRows rows);

}  // namespace tarvo
