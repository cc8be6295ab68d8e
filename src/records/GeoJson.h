#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/Value.h>

#include "records/Positions.h"

namespace tarvo {

/// The value under `key` of a dictionary; a null pointer when there is none, and when `object` is null or no
/// dictionary.
const platform::Value* memberOf(const platform::Value* object, std::string_view key);

/// The value under `key` of each of `objects`; null where there is none and where the element is no dictionary.
platform::Array valuesUnder(const platform::Array& objects, std::string_view key);

/// Reads a GeoJSON position: [longitude, latitude], which more numbers may follow. Absent for anything else.
std::optional<platform::CLLocationCoordinate2D> coordinateOf(const platform::Value& position);

/// Appends a FeatureCollection of the positions that have coordinates, and answers whether there were any.
///
/// A new feature begins where the service action changes to "loc_disabled" or from it, but not with the last position.
bool appendFeatureCollection(std::string& out, const PositionSource& positions, std::string_view geometry);

}  // namespace tarvo
