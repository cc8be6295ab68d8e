#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Receiver.h"

namespace tarvo::receivers {

/// There is nothing to talk to, or not any more; its text is for people and says why: "connection refused".
struct Lost : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Waits for a descriptor, for a moment, or for the end of the work, whichever comes first.
///
/// Threads: the receiver's own.
class Waiting {
 public:
  using Clock = std::chrono::steady_clock;  ///< real time, whatever happens to the wall clock
  static constexpr Clock::time_point kForever = Clock::time_point::max();
  enum class Outcome { ready, late, unwanted };

  /// `descriptor` -1 stands for none; `events` as for poll(2). `unwanted`: give up what you are doing and return.
  virtual Outcome wait(int descriptor, short events, Clock::time_point until) = 0;

 protected:
  ~Waiting() = default;
};

/// One open connection or device.
///
/// Threads: one. Errors: Lost.
class Feed {
 public:
  virtual ~Feed() = default;
  /// Readable when there is something to read; it stays the same.
  virtual int descriptor() const = 0;

  struct Got {
    std::size_t bytes = 0;
    bool ended = false;  ///< a recording is over
  };
  /// Takes what is there, never waits, and appends the fixes in it. A long recording comes in parts.
  virtual Got read(std::vector<platform::CLLocation>& fixes) = 0;

  /// Bytes that the system holds until they are read; what is beyond that is lost or holds up who writes.
  virtual std::size_t room() const = 0;
  virtual bool isRecording() const { return false; }
};

/// Opens a feed. Gives none back when the wait says that nobody wants it any more. Errors: Lost.
using OpenFeed = std::function<std::unique_ptr<Feed>(Waiting&)>;

/// Real time; tests have less of it.
struct Patience {
  std::chrono::milliseconds shortestPause{1000}, longestPause{30000};  ///< between tries; each is twice the one before
  /// So long after its last fix a receiver is searching.
  std::chrono::milliseconds silence{30000};
};

/// Makes a receiver of a feed: it has the thread, the pauses between tries, the pace and what the listener is told.
/// `name` begins each line: "gpsd at localhost:2947". A fix makes the next pause the shortest again.
///
/// Pace: what has come is read once a second, once in five seconds while the fixes show that nothing moves (Pace.h),
/// and not before something comes; so a second's messages wake the process once. A receiver whose fixes have stayed
/// away for 30 s is searching. A recording has no pace but that of who writes it.
///
/// Threads: one, which blocks all signals; it is woken by a descriptor, so that stop and the destructor take effect at
/// once. A feed is closed at a stop, a recording is kept.
/// Errors: std::system_error where the system has no descriptor or no thread left.
std::unique_ptr<Receiver> receiverOf(std::string name, OpenFeed open, Listener& listener, Patience patience = {});

}  // namespace tarvo::receivers
