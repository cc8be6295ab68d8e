#include "limits/PositionInsert.h"

#include "support/Samples.h"

namespace tarvo::bench {

PositionInsert::PositionInsert(RawStore& store)
    : statement_(
          store,
          "INSERT INTO Locations (altitude, appAction, appName, course, horizontalAccuracy, latitude, longitude, "
          "serviceAction, speed, locationTimestamp, eventTimestamp, userAction, identifierForVendor, "
          "verticalAccuracy, sentWithoutACK, unsent, \"index\", localisationMethod) "
          "VALUES (?1, 'unused', ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, 0, ?14, ?15, ?16)") {}

void PositionInsert::insert(std::int64_t i, bool unsent) {
  const platform::CLLocation sample = fix(i);
  statement_.bind(1, sample.altitude);
  statement_.bind(2, kAppName);
  statement_.bind(3, sample.course);
  statement_.bind(4, sample.horizontalAccuracy);
  statement_.bind(5, sample.coordinate.latitude);
  statement_.bind(6, sample.coordinate.longitude);
  statement_.bind(7, serviceActionOf(i));
  statement_.bind(8, sample.speed);
  statement_.bind(9, platform::secondsSince1970(sample.timestamp));
  statement_.bind(10, storedAt(i));
  statement_.bind(11, kActivity);
  statement_.bind(12, kVendor);
  statement_.bind(13, sample.verticalAccuracy);
  statement_.bind(14, std::int64_t{unsent});
  statement_.bind(15, i);
  statement_.bind(16, kMethod);
  statement_.runOnce();
}

}  // namespace tarvo::bench
