#include "platform/foundation/Bundle.h"

#include <tarvo/platform/SystemLog.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <utility>

#include "platform/foundation/Files.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

struct Registry {
  Mutex mutex;
  std::map<std::string, std::unique_ptr<const Bundle>, std::less<>> bundles GUARDED_BY(mutex);
};

Registry& registry() {
  static Registry* registry = new Registry;
  return *registry;
}

struct HostDescription {
  Dictionary info;
  std::string complaint;
};

HostDescription readHostDescription() {
  HostInfo given = hostInfo();
  if (given.dictionary) return {std::move(*given.dictionary), {}};
  const std::filesystem::path& file = given.file;
  std::error_code ignored;
  if (!std::filesystem::exists(file, ignored)) return {};
  auto bytes = readFile(file);
  if (!bytes) return {{}, "The property list of the host cannot be read: " + bytes.error().localizedDescription};
  auto value = parsePropertyList(*bytes);
  if (!value || value->asDictionary() == nullptr)
    return {{}, concat("The property list of the host is not a dictionary: ", file.native())};
  return {*value->asDictionary(), {}};
}

}  // namespace

const Bundle& Bundle::main() {
  struct Main {
    HostDescription description = readHostDescription();
    Bundle bundle;
    std::atomic<bool> told = false;
  };
  static Main* host = [] {
    auto* made = new Main;
    made->bundle.info_ = made->description.info;
    return made;
  }();
  // Told only once the bundle has been made, because whoever receives the line may ask for it.
  if (!host->description.complaint.empty() && !host->told.exchange(true)) NSLog(host->description.complaint);
  return host->bundle;
}

const Bundle* Bundle::withIdentifier(std::string_view identifier) {
  MutexLock lock(registry().mutex);
  auto found = registry().bundles.find(identifier);
  return found == registry().bundles.end() ? nullptr : found->second.get();
}

void Bundle::add(std::string identifier, std::vector<EmbeddedResource> resources) {
  auto bundle = std::make_unique<Bundle>();
  bundle->info_ = {{"CFBundleIdentifier", identifier}};
  bundle->resources_ = std::move(resources);
  MutexLock lock(registry().mutex);
  registry().bundles.try_emplace(std::move(identifier), std::move(bundle));
}

std::optional<std::string> Bundle::bundleIdentifier() const { return findString(info_, "CFBundleIdentifier"); }

std::optional<ResourceURL> Bundle::url(std::string_view resource, std::string_view extension) const {
  for (const EmbeddedResource& embedded : resources_)
    if (embedded.name == resource && embedded.extension == extension)
      return ResourceURL{concat("embedded:/", bundleIdentifier(), "/", resource, ".", extension), embedded.bytes};
  return std::nullopt;
}

}  // namespace tarvo::platform
