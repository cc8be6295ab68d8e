#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/Value.h>

#include "records/Positions.h"

namespace tarvo {

/// What stands under `key` of a dictionary; a null pointer when nothing does, or when `object` is none or null.
const platform::Value* memberOf(const platform::Value* object, std::string_view key);

/// One value of each of `objects`: what stands under `key`, null where nothing does or where the element is no
/// dictionary.
platform::Array valuesUnder(const platform::Array& objects, std::string_view key);

/// A GeoJSON position, [longitude, latitude] with or without more numbers; absent for anything else.
std::optional<platform::CLLocationCoordinate2D> coordinateOf(const platform::Value& position);

/// Appends a FeatureCollection of the positions that have coordinates, and answers whether there were any.
///
/// A new feature begins where the service action turns to or from "loc_disabled"; the last position never begins one.
bool appendFeatureCollection(std::string& out, const PositionSource& positions, std::string_view geometry);

}  // namespace tarvo
