#include <errno.h>
#include <unistd.h>

#include <array>
#include <atomic>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Device.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/SystemLog.h>

#include "platform/device/DeviceSystem.h"
#include "platform/device/KeptIdentifier.h"
#include "platform/foundation/Encoding.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/HomeErasure.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/NotificationCenter.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

/// Each look at the battery may cost a dozen system calls, and a charge changes by the minute.
constexpr Seconds kRecent{10};

struct Device {
  std::atomic<int> platformLevel{10};
  Mutex mutex;
  bool monitoring GUARDED_BY(mutex) = false;
  std::optional<BatteryReading> hostBattery GUARDED_BY(mutex);
  BatteryReading systemBattery GUARDED_BY(mutex);
  std::optional<Seconds> systemBatteryReadAt GUARDED_BY(mutex);  ///< by the installed clock
  std::optional<std::string> hostIdentifier GUARDED_BY(mutex);
  std::optional<std::string> keptIdentifier GUARDED_BY(mutex);
};

Device& device() {
  static Device* const device = new Device;
  return *device;
}

BatteryReading battery() {
  Device& known = device();
  const Seconds now = Clock::current()->monotonic();
  {
    MutexLock lock(known.mutex);
    if (!known.monitoring) return {};
    if (known.hostBattery) return *known.hostBattery;
    // A clock installed since may show less.
    const std::optional<Seconds> readAt = known.systemBatteryReadAt;
    if (readAt && *readAt <= now && now - *readAt < kRecent) return known.systemBattery;
  }
  const BatteryReading reading = readBattery().value_or(BatteryReading{});
  MutexLock lock(known.mutex);
  known.systemBattery = reading;
  known.systemBatteryReadAt = now;
  return reading;
}

/// The upper-case UUID in that file; a new random one is put there when it holds none. Absent when that fails, or when
/// the disk does not tell what the file holds.
std::optional<std::string> keptUuid(const std::filesystem::path& file) {
  auto kept = readFile(file);
  if (kept && upperCaseUuid(*kept) == *kept) return *kept;
  auto made = randomUuid();
  if (!made) return std::nullopt;
  std::optional<Error> failed;
  if (!kept && kept.error().code != ENOENT) failed = kept.error();
  if (!failed) failed = createPrivateDirectories(file.parent_path());
  if (!failed) failed = writeFileAtomically(file, *made, true);
  if (!failed) return made;
  NSLog(concat("device identifier cannot be kept: ", *failed));
  return std::nullopt;
}

}  // namespace

UIDevice& UIDevice::current() {
  static UIDevice* const current = new UIDevice;
  return *current;
}

void UIDevice::setBatteryMonitoringEnabled(bool enabled) {
  MutexLock lock(device().mutex);
  device().monitoring = enabled;
  device().systemBatteryReadAt.reset();
}

UIDeviceBatteryState UIDevice::batteryState() const { return battery().state; }
double UIDevice::batteryLevel() const { return battery().level; }

void UIDevice::setBattery(UIDeviceBatteryState state, double level) {
  // Before the lock: it reads files.
  const UIDeviceBatteryState ofSystem = readBattery().value_or(BatteryReading{}).state;
  bool changed = false;
  {
    MutexLock lock(device().mutex);
    const auto before = device().hostBattery ? device().hostBattery->state : ofSystem;
    device().hostBattery = BatteryReading{state, level >= 0 && level <= 1 ? level : -1};
    changed = device().monitoring && state != before;
  }
  if (changed) NotificationCenter::defaultCenter().post(UIDeviceBatteryStateDidChangeNotification);
}

std::string UIDevice::name() const {
  std::array<char, 256> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0) return {};
  return name.data();
}

std::string UIDevice::systemName() const { return systemReleaseName(); }
std::string UIDevice::systemVersion() const { return systemReleaseVersion(); }

int UIDevice::platformLevel() const { return device().platformLevel; }
void UIDevice::setPlatformLevel(int level) { device().platformLevel = level; }
bool UIDevice::hasFeaturesOfLevel9() const { return platformLevel() >= 9; }

std::optional<std::string> UIDevice::identifierForVendor() const {
  MutexLock lock(device().mutex);
  if (device().hostIdentifier) {
    if (device().hostIdentifier->empty()) return std::nullopt;
    return device().hostIdentifier;
  }
  // The lock is kept so that two first calls make one identifier.
  if (!device().keptIdentifier) device().keptIdentifier = keptUuid(homeDirectory() / kIdentifierFile);
  return device().keptIdentifier;
}

void forgetKeptIdentifier() {
  MutexLock lock(device().mutex);
  device().keptIdentifier.reset();
}

bool UIDevice::setIdentifierForVendor(std::optional<std::string> uuid) {
  if (uuid && !uuid->empty()) {
    uuid = upperCaseUuid(*uuid);
    if (!uuid) {
      NSLog("device identifier refused: it is no UUID");
      return false;
    }
  }
  MutexLock lock(device().mutex);
  device().hostIdentifier = std::move(uuid);
  return true;
}

}  // namespace tarvo::platform
