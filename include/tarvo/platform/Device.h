/// @file
/// The application's state, the device's battery and names, and what only the host can do.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <tarvo/Export.h>

namespace tarvo::platform {

/// Where the application is. The numbers are the contract.
enum class UIApplicationState : std::int64_t {
  active = 0,      ///< on the screen
  inactive = 1,    ///< on the screen, and about to leave it or just back
  background = 2,  ///< not on the screen
};
/// What feeds the device. The numbers are the contract.
enum class UIDeviceBatteryState : std::int64_t {
  unknown = 0,    ///< nobody can tell, or nobody watches
  unplugged = 1,  ///< the battery
  charging = 2,   ///< mains power, and the battery is not full
  full = 3,       ///< mains power, and the battery is full
};

/// One button of an alert; `handler` may be empty. Call it at most once, on any thread.
struct AlertAction {
  std::string title;              ///< what stands on it
  bool isCancel = false;          ///< whether it stands for "no"
  std::function<void()> handler;  ///< what choosing it does
};

/// What is to be shown to the user, until a button is chosen.
struct Alert {
  std::string title;                 ///< its heading
  std::string message;               ///< what it says
  std::vector<AlertAction> actions;  ///< the buttons, from the first
};

/// What only the host can do for the library. Each operation has a default that does the least.
///
/// Threads: called on the main queue, with no lock held; never waited for. Errors: an exception that leaves an
/// operation ends the process.
class TARVO_API HostApplication {
 public:
  virtual ~HostApplication();

  /// Shows an alert; answering false says that there is nothing to show it on (the default).
  virtual bool presentAlert(const Alert& alert);
  /// Opens a URL, for instance the settings page.
  virtual void openURL(const std::string& url);
  /// Asks for push messages; the host hands on the token that it gets.
  virtual void registerForRemoteNotifications();
  /// The least number of seconds between two background fetches.
  virtual void setMinimumBackgroundFetchInterval(double seconds);
};

/// Installs the host's answers; an empty pointer restores the defaults. Threads: any.
TARVO_API void setHostApplication(std::shared_ptr<HostApplication> host);

/// The application's state as the host tells it. Threads: any, readable without asking the main thread.
class TARVO_API UIApplication {
 public:
  /// The one of the process.
  static UIApplication& shared();

  /// active until the host says otherwise.
  UIApplicationState applicationState() const;

  /**@{*/
  /// Each sets the state (where it changes) and posts the notification of that name on the caller's thread, which
  /// should be the main one; the library has seen it when the call returns. What each changes: docs/phone.md.
  void didFinishLaunching();
  void didBecomeActive();
  void willResignActive();
  void didEnterBackground();
  /**@}*/

  /**@{*/
  /// Each asks the host's application for what its operation of that name does, on the main queue, and returns at once.
  void present(Alert alert);
  void openURL(std::string url);
  void registerForRemoteNotifications();
  void setMinimumBackgroundFetchInterval(double seconds);
  /**@}*/

 private:
  UIApplication() = default;
};

/// What `HostApplication::openURL` gets for the page of the settings.
inline constexpr const char* UIApplicationOpenSettingsURLString = "app-settings:";
/**@{*/
/// Names of the messages inside this layer; a host cannot observe them.
inline constexpr const char* UIApplicationDidEnterBackgroundNotification =
    "UIApplicationDidEnterBackgroundNotification";
inline constexpr const char* UIApplicationDidBecomeActiveNotification = "UIApplicationDidBecomeActiveNotification";
inline constexpr const char* UIApplicationWillResignActiveNotification = "UIApplicationWillResignActiveNotification";
inline constexpr const char* UIApplicationDidFinishLaunchingNotification =
    "UIApplicationDidFinishLaunchingNotification";
inline constexpr const char* UIDeviceBatteryStateDidChangeNotification = "UIDeviceBatteryStateDidChangeNotification";
/**@}*/

/// The device: battery, names, identifiers.
///
/// Battery: as the system tells it, read at a call but at most once in ten seconds, until the host sets it; only
/// changes that the host sets are told at once. While monitoring is off the state is unknown and the level -1.
/// Threads: any; no lock is held while observers run. Errors: what cannot be read is unknown or absent.
class TARVO_API UIDevice {
 public:
  /// The one of the process.
  static UIDevice& current();

  /// Off until it is switched on.
  void setBatteryMonitoringEnabled(bool enabled);
  /// Unknown while monitoring is off.
  UIDeviceBatteryState batteryState() const;
  /// 0 to 1, or -1 when unknown.
  double batteryLevel() const;
  /// The host knows better: overrides the system and, on a change of state while monitoring, posts
  /// UIDeviceBatteryStateDidChangeNotification on the caller's thread.
  void setBattery(UIDeviceBatteryState state, double level);

  /**@{*/
  /// The name of the machine; name and version of its operating system; empty where nobody tells.
  std::string name() const;
  std::string systemName() const;
  std::string systemVersion() const;
  /**@}*/
  /**@{*/
  /// The level of the phone platform whose features the SDK counts on, 10 at first. For tests of the SDK.
  int platformLevel() const;
  void setPlatformLevel(int level);
  /**@}*/
  /// Whether the level is 9 or higher, from which on background fixes must be allowed and a single fix can be asked
  /// for.
  bool hasFeaturesOfLevel9() const;

  /// Upper-case random UUID, made once and kept in `Library/identifierForVendor` of the home directory; absent when
  /// that file cannot be read or made.
  std::optional<std::string> identifierForVendor() const;
  /// A host with an identifier of its own sets it: a UUID, kept in upper case; what is none is refused (false, with a
  /// line in the system log) and changes nothing. An empty text makes it absent, no text restores the kept one.
  bool setIdentifierForVendor(std::optional<std::string> uuid);

 private:
  UIDevice() = default;
};

}  // namespace tarvo::platform
