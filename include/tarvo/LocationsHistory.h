#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/Export.h>
#include <tarvo/LocationRecords.h>
#include <tarvo/Records.h>
#include <tarvo/platform/CLLocation.h>

namespace tarvo {

/// Positions or past trips of a span of time, and their forms for a map. A plain value.
///
/// Threads: any, one at a time for each object; forms of stored positions wait for the store's other work.
/// Errors: never throws; a route that is no JSON is logged and skipped, a failed read is logged and ends early.
class TARVO_API LocationsHistory {
 public:
  LocationRecords locations;              ///< by ascending index
  std::vector<PastTripRecord> pasttrips;  ///< by ascending identifier
  platform::CLLocationCoordinate2D firstLocation;

  /// One fix for each position that has coordinates and a time.
  std::vector<platform::CLLocation> toArray() const;
  platform::CLLocationCoordinate2D getFirstLocation() const { return firstLocation; }
  /// South-west, then north-east corner; of the trips if there are any, else of the positions; absent when there is
  /// neither, and when the positions cannot be read.
  std::optional<std::vector<platform::CLLocationCoordinate2D>> getBoundingBox() const;
  /// A FeatureCollection of the positions, cut where collection was switched off or on; absent without positions, and
  /// when they cannot be read.
  /// `geometry`: Tarvo::GEOJSON_LINESTRING or Tarvo::GEOJSON_MULTIPOINT.
  std::optional<std::string> toGeoJSON(std::string_view geometry) const;
  /// The routes of the past trips that have one.
  std::vector<std::string> toGeoJSON() const;
};

}  // namespace tarvo
