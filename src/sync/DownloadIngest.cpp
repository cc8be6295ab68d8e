#include "sync/DownloadIngest.h"

#include <cerrno>
#include <filesystem>

#include <tarvo/platform/Environment.h>

#include "log/Log.h"
#include "net/Messages.h"
#include "net/ProtocolBreak.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/Json.h"
#include "settings/Settings.h"
#include "store/PastTrips.h"
#include "store/PointOfInterest.h"
#include "sync/HistoryReads.h"

namespace tarvo {

using platform::concat;

namespace {

/// Breaks the protocol unless the newest trip will have an integer identifier. Found out once a trip had been saved,
/// each later process would stop at it as well.
void requireIdentifiers(const std::vector<platform::Dictionary>& trips, PastTrips::Context& context) {
  bool isIdentified = trips.empty();
  for (const auto& trip : trips) {
    const platform::Value* id = platform::find(trip, "pasttrip_id");
    if (id == nullptr) continue;
    requireInteger(*id, "pasttrip_id");
    isIdentified = true;
  }
  if (!isIdentified && PastTrips::lackIdentifiers(context)) protocolBreak("no past trip has an identifier");
}

/// The name comes from the backend: it counts only as that of a log file. The store and the host's files lie there too.
void deleteConfirmedFile(const std::string& name) {
  const auto directories = platform::documentDirectories();
  if (directories.empty() || !Log::isFileName(name)) return;
  const std::filesystem::path file = directories.front() / name;
  Log::debug("LocationManager:networkManagerReceivedSomeData [net] file:", file.string());
  std::error_code error;
  if (std::filesystem::is_regular_file(std::filesystem::symlink_status(file, error)) &&
      std::filesystem::remove(file, error)) {
    Log::debug(file.string(), ": is deleted");
  } else {
    const int code = error ? error.value() : ENOENT;
    Log::debug(file.string(), ": is not deleted ", platform::posixError(code, "remove"));
  }
}

}  // namespace

std::optional<LocationsHistory> DownloadIngest::addNewLastTrip(const std::vector<platform::Dictionary>& trips) {
  std::optional<PastTripRecord> newest;
  auto& context = store_.managedObjectContext();
  const auto ingest = [&] {
    Log::debug("LocationManager:addNewLastTripToDatabase [loc] lasttrips:[Count] ", trips.size());
    requireIdentifiers(trips, context);
    for (const auto& trip : trips) {
      const platform::Value* id = platform::find(trip, "pasttrip_id");
      Log::debug("LocationManager:addNewLastTripToDatabase [loc] loc:", id ? concat(*id) : "nil",
                 " mainThread:", mainThread());
      if (PastTrips::addLastTrip(trip, context)) store_.saveContext();
    }
    auto stored = HistoryReads(store_).getLastPastTrip();
    if (stored) {
      if (!stored->pasttrip_id) protocolBreak("a stored past trip has no integer identifier");
      Settings::shared().lastTripID.set(*stored->pasttrip_id);
    }
    newest = std::move(stored);
  };
  context.performAndWait([&] { droppingProtocolBreaks(ingest); });
  if (!newest) return std::nullopt;
  LocationsHistory history;
  history.pasttrips.push_back(std::move(*newest));
  return history;
}

void DownloadIngest::addNewPOI(const std::vector<platform::Dictionary>& pois) {
  if (pois.empty()) return;
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    for (const auto& poi : pois)
      if (PointOfInterest::addPOI(poi, context)) store_.saveContext();
  });
}

void DownloadIngest::removeData() {
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] { PastTrips::removeData(context); });
}

void DownloadIngest::removePOIs() {
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] { PointOfInterest::removePOIs(context); });
}

void handleLogUploadReply(const std::string& data) {
  Log::debug("LocationManager:networkManagerReceivedSomeData received data:", data);
  if (data == "File is uploaded" || data == "Files is not uploaded") {
    Log::debug("LocationManager:networkManagerReceivedSomeData [net]", data);
    return;
  }
  auto reply = platform::parseJson(data);
  if (!reply) {
    Log::error("LocationManager:networkMangerReceivedSomeData [net] cannot convert the ws's response to json");
    return;
  }
  const platform::Dictionary* dictionary = reply->asDictionary();
  if (dictionary == nullptr) return;
  // Here, unlike in the other answers, a "success" of another type is no fault: it is not the Boolean true.
  const platform::Value* success = platform::find(*dictionary, "success");
  if (success == nullptr || success->asBool() != true) return;
  const auto results = platform::findString(*dictionary, "results");
  if (!results) return;
  Log::debug("LocationManager:networkManagerReceivedSomeData [net] results:", *results);
  if (*results != "uploaded") return;
  if (const auto name = platform::findString(*dictionary, "file")) deleteConfirmedFile(*name);
}

}  // namespace tarvo
