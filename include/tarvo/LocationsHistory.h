/// @file
/// The positions or past trips of a span of time.
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

/// The positions or the past trips of a span of time, and what a map needs of them. A plain value.
///
/// Threads: any, one at a time for each object; operations on stored positions wait for the store's other work.
/// Errors: throws nothing but std::bad_alloc; a route that is no JSON is logged and skipped, positions that cannot be
/// read are logged.
class TARVO_API LocationsHistory {
 public:
  LocationRecords locations;                       ///< by ascending index
  std::vector<PastTripRecord> pasttrips;           ///< by ascending identifier
  platform::CLLocationCoordinate2D firstLocation;  ///< of the first of `locations`; (0, 0) without any

  /// One fix for each position that has coordinates and a time; empty when the positions cannot be read. Of the other
  /// values a missing altitude is 0, a missing accuracy, course or speed is -1.
  std::vector<platform::CLLocation> toArray() const;
  /// `firstLocation`.
  platform::CLLocationCoordinate2D getFirstLocation() const { return firstLocation; }
  /// The smallest rectangle around all trips or, if there are none, around all positions: its south-west corner, then
  /// its north-east corner. Both are (-200, -200) when there is no point that can be read. Absent without trips and
  /// positions, and when the positions cannot be read. Points on both sides of the 180th meridian give a rectangle
  /// around the rest of the globe.
  std::optional<std::vector<platform::CLLocationCoordinate2D>> getBoundingBox() const;
  /// JSON text of a GeoJSON FeatureCollection of the positions; a new feature begins where collection was switched off
  /// or on. Absent when no position has coordinates, and when the positions cannot be read.
  /// `geometry`: Tarvo::GEOJSON_LINESTRING or Tarvo::GEOJSON_MULTIPOINT; another text is written as it is. A stretch of
  /// one position is a LineString of one point, which strict readers refuse.
  std::optional<std::string> toGeoJSON(std::string_view geometry) const;
  /// The routes of the past trips that have one, as they are.
  std::vector<std::string> toGeoJSON() const;
};

}  // namespace tarvo
