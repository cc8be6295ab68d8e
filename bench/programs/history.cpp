// Writes all positions of a home as GeoJSON; prints positions/s and how much memory that took beside the text's size.
// usage: bench_history HOME sdk|limit|compare
#include <malloc.h>

#include <optional>
#include <string>

#include "limits/HistoryText.h"
#include "settings/Settings.h"
#include "support/Process.h"
#include "support/Sdk.h"

namespace {

using namespace tarvo;

constexpr std::size_t kMostBytesPerPosition = 64;

std::string sdkText(Tarvo& host) {
  auto history = host.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, std::nullopt, std::nullopt);
  if (!history) bench::fail("there is no history");
  auto text = history->toGeoJSON(Tarvo::GEOJSON_LINESTRING);
  if (!text) bench::fail("the history has no text");
  return std::move(*text);
}

/// Runs `make`, which answers the size of a text that still exists then, and prints what that cost.
template <class Make>
void measure(const std::string& name, double positions, Make make) {
  const auto before = static_cast<double>(bench::statusNumber("self", "VmRSS"));
  const double start = bench::seconds();
  const auto size = static_cast<double>(make());
  bench::report("history." + name, positions / (bench::seconds() - start));
  bench::report("history." + name + ".memory", (bench::peakKiB() - before) * 1024 / size);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) bench::fail("usage: bench_history HOME sdk|limit|compare");
  const std::string_view what = argv[2];
  bench::RawStore store(bench::storeIn(argv[1]));
  const std::int64_t positions = store.number("SELECT count(*) FROM Locations");
  bench::TextBuffer buffer(static_cast<std::size_t>(positions) * kMostBytesPerPosition + 4096);
  if (what == "limit") {
    measure("limit", static_cast<double>(positions), [&] { return bench::historyText(store, buffer).size(); });
    return 0;
  }
  bench::useHome(argv[1]);
  Tarvo host;
  Settings::shared().activateStatus.set(Tarvo::LOCAL_BACKGROUND);
  std::string text;
  if (what == "sdk") {
    measure("sdk", static_cast<double>(positions), [&] {
      text = sdkText(host);
      return text.size();
    });
  } else if (sdkText(host) != bench::historyText(store, buffer)) {
    bench::fail("the histories of the SDK and of the limit differ");
  }
  std::_Exit(0);
}
