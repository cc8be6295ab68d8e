#include "limits/UploadText.h"

namespace tarvo::bench {

void UploadText::add(const UploadRow& row) {
  text_.add(separator_);
  separator_ = ",";
  text_.add(R"({"unique_position_id_for_app":")");
  text_.add(row.index);
  text_.add(R"(","useruuid":")");
  text_.add(user_);
  text_.add(R"(","app_name":")");
  text_.add(row.appName);
  text_.add(R"(","date_localisation":")");
  text_.addDate(row.locationTimestamp);
  text_.add(R"(","date_mobile":")");
  text_.addDate(row.eventTimestamp);
  text_.add(R"(","lon":")");
  text_.add(row.longitude);
  text_.add(R"(","lat":")");
  text_.add(row.latitude);
  text_.add(R"(","acc":")");
  text_.add(row.accuracy);
  text_.add(R"(","speed":")");
  text_.add(row.speed);
  text_.add(R"(","bearing":")");
  text_.add(row.course);
  text_.add(R"(","alt":")");
  text_.add(row.altitude);
  text_.add(R"(","provider":")");
  text_.add(row.method);
  text_.add(R"(","service_action":")");
  text_.add(row.serviceAction);
  text_.add(R"(","terramesh_data_version":"1"})");
}

UnsentRows::UnsentRows(RawStore& store)
    : select_(store,
              "SELECT _key, \"index\", appName, localisationMethod, serviceAction, locationTimestamp, eventTimestamp, "
              "longitude, latitude, horizontalAccuracy, speed, course, altitude FROM Locations "
              "WHERE unsent = 1 AND sentWithoutACK = 0 ORDER BY \"index\" LIMIT 1000") {}

UploadRow UnsentRows::row() const {
  UploadRow row;
  row.key = select_.integer(0);
  row.index = select_.integer(1);
  row.appName = select_.text(2);
  row.method = select_.text(3);
  row.serviceAction = select_.text(4);
  row.locationTimestamp = select_.real(5);
  row.eventTimestamp = select_.real(6);
  row.longitude = select_.real(7);
  row.latitude = select_.real(8);
  row.accuracy = select_.real(9);
  row.speed = select_.real(10);
  row.course = select_.real(11);
  row.altitude = select_.real(12);
  return row;
}

}  // namespace tarvo::bench
