#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <tarvo/LocationRecords.h>
#include <tarvo/Records.h>

#include "platform/persistence/StoredRows.h"
#include "store/Attributes.h"

namespace tarvo {

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
