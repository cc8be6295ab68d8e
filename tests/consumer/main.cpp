// A host: activates the SDK in a home of its own, feeds it fixes, uploads into the void and reads them back as a
// history.

#include <cstdio>
#include <filesystem>
#include <string_view>

#include <tarvo/NetworkManager.h>
#include <tarvo/Tarvo.h>
#include <tarvo/Version.h>
#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/LocationService.h>
#include <tarvo/platform/SystemLog.h>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  using namespace tarvo;
  if (std::string_view(version()) != TARVO_VERSION_STRING) return 1;
  platform::setHomeDirectory(argv[1]);
  platform::setSystemLogSink([](std::string_view) {});
  LocationManager::setRemoteWebServerURL("http://127.0.0.1:9/api");  // nobody listens there
  Tarvo tarvo;
  NetworkManager::setApiKeySecret("secret");
  tarvo.activate(Tarvo::BACKEND_BACKGROUND);
  for (int i = 0; i < 3; ++i) {
    platform::CLLocation fix;
    fix.coordinate = {48.0 + 0.001 * i, 11.0};
    fix.horizontalAccuracy = 5;
    fix.timestamp = platform::Clock::current()->now();
    platform::LocationService::shared().deliver({fix});
  }
  if (!Tarvo::waitUntilIdle(30)) return 1;
  const auto history = tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, std::nullopt, std::nullopt);
  if (!history || history->locations.size() != 3) return 1;
  std::printf("%s\n", history->toGeoJSON(Tarvo::GEOJSON_LINESTRING).value_or("").c_str());
  tarvo.activate(Tarvo::DEACTIVE_ALL);
  return 0;
}
