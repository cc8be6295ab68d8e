#include "store/Locations.h"

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Device.h>

#include "log/Log.h"
#include "platform/foundation/Bundle.h"
#include "platform/foundation/Text.h"
#include "store/Attributes.h"
#include "store/RecordReading.h"

namespace tarvo {

namespace at = attribute::locations;
using platform::errorAndUserInfo;
using platform::NSFetchRequest;

std::shared_ptr<Locations> Locations::addLocation(const platform::CLLocation& location, std::string_view withActivity,
                                                  std::string_view withLocalisationMethod, Context& context,
                                                  std::string_view serviceAction) {
  const auto added = insertAs<Locations>(context);
  if (!added) return nullptr;
  static const auto& appName = *new std::string("ios:" + platform::Bundle::main().bundleIdentifier().value_or(""));
  auto count = context.count(NSFetchRequest{.entity = std::string(kEntity)});
  if (!count) {
    // The new object stays, unfilled: the next save takes it along, and it owns a number.
    Log::error(" Locations:addLocation Unresolved error ", errorAndUserInfo(count.error()));
    return nullptr;
  }
  // The count sees the new object itself, so it is at least 1.
  const auto index = static_cast<std::int64_t>(*count) - 1;
  const platform::Date now = platform::Clock::current()->now();

  added->setString(at::appName, appName);
  added->setString(at::appAction, "unused");
  added->setString(at::identifierForVendor, platform::UIDevice::current().identifierForVendor());
  added->setString(at::userAction, withActivity);
  added->setString(at::serviceAction, serviceAction);
  added->setNumber(at::longitude, location.coordinate.longitude);
  added->setNumber(at::latitude, location.coordinate.latitude);
  added->setDate(at::locationTimestamp, location.timestamp);
  added->setDate(at::eventTimestamp, now);
  added->setNumber(at::altitude, location.altitude);
  added->setInteger(at::floor, location.floor);
  added->setNumber(at::course, location.course);
  added->setNumber(at::horizontalAccuracy, location.horizontalAccuracy);
  added->setNumber(at::verticalAccuracy, location.verticalAccuracy);
  added->setNumber(at::speed, location.speed);
  added->setBoolean(at::unsent, true);
  added->setBoolean(at::sentWithoutACK, false);
  added->setInteger(at::index, index);
  added->setString(at::localisationMethod, withLocalisationMethod);

  Log::debug("Locations:addLocation [loc] id:", index, " lon:", location.coordinate.longitude,
             " lat:", location.coordinate.latitude, " tLoc:", location.timestamp, " tMob:", now,
             " event:", serviceAction, " mainThread:", mainThread());
  return added;
}

void Locations::removeData(Context& context) {
  auto all = context.fetch(NSFetchRequest{.entity = std::string(kEntity)});
  if (!all) {
    Log::error(" removeData Unresolved error ", errorAndUserInfo(all.error()));
    return;
  }
  for (const auto& object : *all) context.deleteObject(object);
}

LocationRecord Locations::record() const { return recordOf(*this); }

std::optional<std::int64_t> Locations::index() const { return integer(at::index); }
std::optional<double> Locations::latitude() const { return number(at::latitude); }
std::optional<double> Locations::longitude() const { return number(at::longitude); }

std::string Locations::description() const {
  return platform::concat("{index:", integer(at::index), " lon:", number(at::longitude), " lat:", number(at::latitude),
                          " acc:", number(at::horizontalAccuracy), " speed:", number(at::speed),
                          " course:", number(at::course), " alt:", number(at::altitude),
                          " tLoc:", date(at::locationTimestamp), " tMob:", date(at::eventTimestamp),
                          " event:", string(at::serviceAction), " provider:", string(at::localisationMethod),
                          " unsent:", boolean(at::unsent), " sentWithoutACK:", boolean(at::sentWithoutACK), "}");
}

}  // namespace tarvo
