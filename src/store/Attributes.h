#pragma once

#include <array>
#include <string_view>

#include "platform/persistence/NSManagedObjectModel.h"

namespace tarvo::attribute {

// The position of each attribute in its entity, as the store classes address them. The order and the types must agree
// with the model resource; `ObjectStore` compares the two.

struct Declaration {
  std::string_view name;
  platform::NSAttributeType type;
};

using Type = platform::NSAttributeType;

namespace locations {
enum Position : int {
  altitude,
  appAction,
  appName,
  course,
  floor,
  horizontalAccuracy,
  latitude,
  longitude,
  serviceAction,
  speed,
  locationTimestamp,
  eventTimestamp,
  userAction,
  identifierForVendor,
  verticalAccuracy,
  sentWithoutACK,
  unsent,
  index,
  localisationMethod,
};
inline constexpr std::array<Declaration, 19> kAll{{
    {"altitude", Type::floating},
    {"appAction", Type::string},
    {"appName", Type::string},
    {"course", Type::floating},
    {"floor", Type::integer64},
    {"horizontalAccuracy", Type::floating},
    {"latitude", Type::floating},
    {"longitude", Type::floating},
    {"serviceAction", Type::string},
    {"speed", Type::floating},
    {"locationTimestamp", Type::date},
    {"eventTimestamp", Type::date},
    {"userAction", Type::string},
    {"identifierForVendor", Type::string},
    {"verticalAccuracy", Type::floating},
    {"sentWithoutACK", Type::boolean},
    {"unsent", Type::boolean},
    {"index", Type::integer64},
    {"localisationMethod", Type::string},
}};
}  // namespace locations

namespace past_trips {
enum Position : int {
  pasttrip_id,
  departure_lat,
  departure_lon,
  arrival_lat,
  arrival_lon,
  start_time,
  arrival_time,
  route,
};
inline constexpr std::array<Declaration, 8> kAll{{
    {"pasttrip_id", Type::integer64},
    {"departure_lat", Type::floating},
    {"departure_lon", Type::floating},
    {"arrival_lat", Type::floating},
    {"arrival_lon", Type::floating},
    {"start_time", Type::date},
    {"arrival_time", Type::date},
    {"route", Type::string},
}};
}  // namespace past_trips

namespace points_of_interest {
enum Position : int { poi_id, latitude, longitude, point_geo_json, zone_geo_json };
inline constexpr std::array<Declaration, 5> kAll{{
    {"poi_id", Type::integer64},
    {"latitude", Type::floating},
    {"longitude", Type::floating},
    {"point_geo_json", Type::string},
    {"zone_geo_json", Type::string},
}};
}  // namespace points_of_interest

namespace users {
enum Position : int { uuid, timestamp };
inline constexpr std::array<Declaration, 2> kAll{{
    {"uuid", Type::string},
    {"timestamp", Type::string},
}};
}  // namespace users

}  // namespace tarvo::attribute
