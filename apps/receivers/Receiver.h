#pragma once

#include <string>
#include <vector>

#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/LocationService.h>

/// Where fixes come from on a device: gpsd, a line of NMEA, the desktop's location service.
namespace tarvo::receivers {

enum class Condition {
  resting,    ///< nobody needs fixes
  lost,       ///< nothing to talk to: no daemon, no device; it is tried again, each time later
  searching,  ///< there is a receiver, which has given no fix yet, or none for a while
  receiving,  ///< fixes come
  refused,    ///< somebody has decided that there shall be no fixes; it is tried again like what is lost
  ended       ///< a recording is over: nothing will come any more
};

/// What a receiver tells its unit.
///
/// Threads: a thread of the receiver's, one call at a time, and none after the receiver's end; both return soon.
class Listener {
 public:
  virtual ~Listener() = default;
  /// Fixes in the order in which the receiver gave them: doubles and steps back in time included, invalid ones not.
  virtual void received(const std::vector<platform::CLLocation>& fixes) = 0;
  /// `line` is for people, and names what it is about: "gpsd at localhost:2947: connection refused, it is tried again".
  /// Told once for each change, so an outage is told once, and the line holds as long as it lasts.
  virtual void changed(Condition condition, const std::string& line) = 0;
};

/// One way to fixes. It works from `start` to `stop`; the destructor stops it and returns within a second, after which
/// the listener is not called any more.
///
/// Threads: start and stop on the location service's queue, and they return at once (LocationSource says more); it has
/// a thread of its own, which does not wake while nothing comes. Errors: none; what fails is told to the listener and
/// tried again after 1, 2, 4 and so on up to 30 s.
class Receiver : public platform::LocationSource {};

}  // namespace tarvo::receivers
