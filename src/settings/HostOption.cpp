#include "settings/HostOption.h"

#include <cstdint>

#include <tarvo/HostKeys.h>

#include "platform/foundation/Bundle.h"
#include "platform/foundation/Text.h"

namespace tarvo {
namespace {

using platform::Seconds;
using platform::Value;

/// Reads the host's description key by key.
class Description {
 public:
  explicit Description(std::vector<std::string>& complaints) : complaints_(complaints) {}

  void read(const char* key, bool& option) const {
    if (const Value* value = find(key)) take(key, value->asBool(), "Boolean", option);
  }
  template <class Option>
  void readSeconds(const char* key, Option& option) const {
    const Value* value = find(key);
    if (value == nullptr) return;
    const auto seconds = value->asDouble();
    take(key, seconds >= 0 ? std::optional(Seconds(*seconds)) : std::nullopt, "number of seconds", option);
  }
  void readBytes(const char* key, std::optional<std::uint64_t>& option) const {
    const Value* value = find(key);
    if (value == nullptr) return;
    const auto bytes = value->asInteger();
    take(key, bytes >= 0 ? std::optional(static_cast<std::uint64_t>(*bytes)) : std::nullopt, "number of bytes", option);
  }

 private:
  const Value* find(const char* key) const { return platform::find(info_, key); }
  template <class Read, class Option>
  void take(const char* key, const std::optional<Read>& value, const char* expected, Option& option) const {
    if (value)
      option = *value;
    else
      complaints_.push_back(platform::concat("Tarvo : ", key, " is left out: it is no ", expected));
  }

  const platform::Dictionary& info_ = platform::Bundle::main().infoDictionary();
  std::vector<std::string>& complaints_;
};

}  // namespace

DeliveryOptions describedDeliveryOptions(std::vector<std::string>& complaints) {
  const Description description(complaints);
  DeliveryOptions options;
  description.read(keys::kConfirmedDelivery, options.confirmed);
  description.readSeconds(keys::kLeastPassInterval, options.leastPassInterval);
  description.read(keys::kNetworkIsMetered, options.networkIsMetered);
  description.readBytes(keys::kMeteredBytesPerDay, options.meteredBytesPerDay);
  description.read(keys::kDropProtocolBreaks, options.dropsProtocolBreaks);
  return options;
}

StorageLimits describedStorageLimits(std::vector<std::string>& complaints) {
  const Description description(complaints);
  StorageLimits limits;
  description.readSeconds(keys::kPositionAge, limits.positionAge);
  description.readBytes(keys::kStoreBytes, limits.storeBytes);
  description.readSeconds(keys::kLogAge, limits.logAge);
  description.readBytes(keys::kLogBytes, limits.logBytes);
  return limits;
}

}  // namespace tarvo
