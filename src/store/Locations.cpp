#include "store/Locations.h"

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Device.h>

#include "log/Log.h"
#include "platform/foundation/Bundle.h"
#include "platform/foundation/FatalError.h"
#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/Text.h"
#include "settings/EngineLink.h"
#include "settings/Settings.h"
#include "store/Attributes.h"
#include "store/RecordReading.h"

namespace tarvo {

namespace at = attribute::locations;
using platform::errorAndUserInfo;
using platform::NSManagedObjectID;
using Operator = platform::NSPredicate::Operator;

namespace {

/// The position to be marked, told in the log behind `opening`; a null pointer when there is none any more, which is
/// logged behind `failureText`.
std::shared_ptr<Locations> positionToMark(const NSManagedObjectID& id, Locations::Context& context,
                                          std::string_view opening, std::string_view failureText) {
  auto object = context.existingObject(id);
  if (!object) {
    Log::error(failureText, errorAndUserInfo(object.error()));
    return nullptr;
  }
  const auto position = std::dynamic_pointer_cast<Locations>(*object);
  if (position) Log::debug(opening, id, " mainThread:", mainThread());
  return position;
}

}  // namespace

std::shared_ptr<Locations> Locations::addLocation(const platform::CLLocation& fix, std::string_view withActivity,
                                                  std::string_view withLocalisationMethod, Context& context,
                                                  std::string_view serviceAction) {
  const auto added = insert(context);
  if (!added) return nullptr;
  platform::faultPoint("intake: row made");
  static const auto& appName = *new std::string("ios:" + platform::Bundle::main().bundleIdentifier().value_or(""));
  auto counted = count(context);
  auto removed = counted ? context.removedRows(kEntity) : counted.error();
  if (!removed) {
    // The new position stays, unfilled: the next save takes it along, and it owns a number.
    Log::error(" Locations:addLocation Unresolved error ", errorAndUserInfo(removed.error()));
    return nullptr;
  }
  // The count sees the new position itself, so it is at least 1.
  const auto index = static_cast<std::int64_t>(*counted) - 1 + *removed;
  platform::faultPoint("intake: counted");
  const platform::Date now = platform::Clock::current()->now();

  added->setString(at::appName, appName);
  added->setString(at::appAction, "unused");
  added->setString(at::identifierForVendor, platform::UIDevice::current().identifierForVendor());
  added->setString(at::userAction, withActivity);
  added->setString(at::serviceAction, serviceAction);
  added->setNumber(at::longitude, fix.coordinate.longitude);
  added->setNumber(at::latitude, fix.coordinate.latitude);
  added->setDate(at::locationTimestamp, fix.timestamp);
  added->setDate(at::eventTimestamp, now);
  added->setNumber(at::altitude, fix.altitude);
  added->setInteger(at::floor, fix.floor);
  added->setNumber(at::course, fix.course);
  added->setNumber(at::horizontalAccuracy, fix.horizontalAccuracy);
  added->setNumber(at::verticalAccuracy, fix.verticalAccuracy);
  added->setNumber(at::speed, fix.speed);
  added->setBoolean(at::unsent, true);
  added->setBoolean(at::sentWithoutACK, false);
  added->setInteger(at::index, index);
  added->setString(at::localisationMethod, withLocalisationMethod);
  platform::faultPoint("intake: row filled");

  Log::debug("Locations:addLocation [loc] id:", index, " lon:", fix.coordinate.longitude,
             " lat:", fix.coordinate.latitude, " tLoc:", fix.timestamp, " tMob:", now, " event:", serviceAction,
             " mainThread:", mainThread());
  return added;
}

void Locations::markLocationAsSentWithID(const NSManagedObjectID& id, Context& context) {
  const auto position = positionToMark(id, context, "Locations:markLocationAsSentWithID [loc] ",
                                       "Locations:markLocationAsSentWithID Unresolved error ");
  if (position) position->setBoolean(at::unsent, false);
}

void Locations::markLocationAsSentWithoutACKWithID(const NSManagedObjectID& id, Context& context) {
  const auto position = positionToMark(id, context, "Locations:markLocationAsSentWithoutACKWithID [loc] ",
                                       "Locations:markLocationAsSentWithoutACKWithID Unresolved error ");
  if (position) position->setBoolean(at::sentWithoutACK, true);
}

void Locations::markLocationAsSentWithIndex(std::int64_t index, Context& context) {
  const auto positions = fetch(context, "Locations:markLocationAsSentWithIndex [loc] error:",
                               {.predicates = {{"index", Operator::equal, platform::concat(index)}}});
  if (!positions) return;
  if (positions->size() > 1) {
    Log::debug("Locations:markLocationAsSentWithIndex [loc] ", positions->size(),
               " locs with same index! mainThread:", mainThread());
    return;
  }
  if (positions->empty()) platform::fatalError(platform::concat("no position has the index ", index));
  positions->front()->setBoolean(at::unsent, false);
  positions->front()->setBoolean(at::sentWithoutACK, false);
}

void Locations::markLocationAsSentUntilIndex(std::string_view locationIndex, Context& context,
                                             std::string_view firstLoc) {
  const auto positions = fetch(context, "Locations:markLocationAsSentUntilIndex [loc] error:",
                               {.predicates = {{"index", Operator::atMost, std::string(locationIndex)},
                                               {"index", Operator::atLeast, std::string(firstLoc)}}});
  // Intended: a range that names no position leaves the channel held until it is stale.
  if (!positions || positions->empty()) return;
  Log::debug("Locations:markLocationAsSentUntilIndex [loc] from:", positions->front()->index(),
             " to:", positions->back()->index(), " mainThread:", mainThread());
  for (const auto& position : *positions) {
    position->setBoolean(at::unsent, false);
    position->setBoolean(at::sentWithoutACK, false);
  }
  platform::faultPoint("acknowledgement: marked");
  Settings::shared().uploadChannel.release();
  platform::faultPoint("acknowledgement: channel freed");
  // Here, before the caller saves, and not posted elsewhere: one acknowledged batch is what sends the next.
  if (EngineLink* engine = EngineLink::installed()) engine->startPass();
}

void Locations::removeData(Context& context) {
  (void)context.claim();  // who was kept out until now sees them again
  const auto all = fetch(context, " removeData Unresolved error ");
  if (!all) return;
  for (const auto& position : *all) context.deleteObject(position);
}

LocationRecord Locations::record() const { return recordOf(*this); }

std::optional<std::int64_t> Locations::index() const { return integer(at::index); }

std::string Locations::description() const {
  return platform::concat("{index:", integer(at::index), " lon:", number(at::longitude), " lat:", number(at::latitude),
                          " acc:", number(at::horizontalAccuracy), " speed:", number(at::speed),
                          " course:", number(at::course), " alt:", number(at::altitude),
                          " tLoc:", date(at::locationTimestamp), " tMob:", date(at::eventTimestamp),
                          " event:", string(at::serviceAction), " provider:", string(at::localisationMethod),
                          " unsent:", boolean(at::unsent), " sentWithoutACK:", boolean(at::sentWithoutACK), "}");
}

}  // namespace tarvo
