#include "support/Sdk.h"

#include <atomic>

#include <tarvo/platform/Environment.h>
#include <tarvo/platform/SystemLog.h>

#include "platform/foundation/WorkInFlight.h"
#include "support/Process.h"

namespace tarvo::bench {
namespace {

std::atomic<std::uint64_t> lines{0};

}  // namespace

void useHome(const std::filesystem::path& home) {
  platform::setHomeDirectory(home);
  platform::setSystemLogSink(consoleSink());
}

platform::SystemLogSink consoleSink() {
  return [](std::string_view) { lines.fetch_add(1, std::memory_order_relaxed); };
}
std::uint64_t consoleLines() { return lines.load(); }

void waitUntilIdle() {
  if (!platform::WorkInFlight::waitUntilIdle(platform::Seconds(600))) fail("the SDK did not come to rest");
}

std::filesystem::path storeIn(const std::filesystem::path& home) { return home / "Documents" / ObjectStore::kFileName; }

}  // namespace tarvo::bench
