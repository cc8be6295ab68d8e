#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "Wake.h"

/// What the clients of D-Bus share. Included by their sources only, so that no header shows sd-bus.
namespace tarvo::receivers {

/// A connection to the system bus for one client of one service, on a thread of its own, while it is wanted. A
/// connection that fails, or whose service leaves the bus, is given up as a whole, and a new one made after 1, 2, 4 and
/// so on up to 30 s: nothing of the old one is left to put right.
///
/// Threads: `want` and the destructor on any; the latter returns at once, apart from a call to the client that is under
/// way. All else on the thread of the loop, which wakes for messages and time limits only. Errors: the constructor
/// throws std::system_error where there is no thread to be had; all else goes to `Client::failed`.
class BusLoop {
 public:
  /// Called on the loop's thread. It calls its service asynchronously, since nothing may hold up the loop.
  class Client {
   public:
    virtual ~Client() = default;
    /// A connection begins. What is sent before it stands waits in it.
    virtual void opened(sd_bus* bus) = 0;
    /// The service has come to the bus while the connection stood.
    virtual void appeared() {}
    /// It is not wanted any more; a last message may be sent, no answer comes. Null where there is none just now.
    virtual void closing(sd_bus* bus) = 0;
    /// It has failed, or was given up; `refused` as `giveUp` said.
    virtual void failed(bool refused, const std::string& why) = 0;
    /// The time limit is over.
    virtual void timeUp() = 0;
  };

  /// `threadName` has at most 15 bytes.
  BusLoop(const char* service, const char* threadName, Client& client);
  ~BusLoop();
  BusLoop(const BusLoop&) = delete;
  BusLoop& operator=(const BusLoop&) = delete;

  void want(bool wanted);

  /// Ends the connection once the present message is done with.
  void giveUp(bool refused, std::string why);
  /// The client has what it wanted: the next pause is the shortest again.
  void settled() { pause_ = kShortestPause; }
  /// Sets the one time limit anew, or none. It goes with the connection.
  void limit(std::optional<std::chrono::seconds> span);

 private:
  using Time = std::chrono::steady_clock;
  struct Closing {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  };
  static constexpr std::chrono::seconds kShortestPause{1}, kLongestPause{30};

  void run();
  void open();
  void process();
  void endConnection();
  void wait();
  void onOwner(sd_bus_message* message);

  const char* const service_;
  Client& client_;
  const Wake wake_;
  std::atomic<bool> wanted_ = false, ending_ = false;
  // Of the thread.
  std::unique_ptr<sd_bus, Closing> bus_;
  struct Failure {
    bool refused;
    std::string why;
  };
  std::optional<Failure> failure_;
  std::optional<Time::time_point> limit_, nextTry_;
  std::chrono::seconds pause_ = kShortestPause;
  std::thread thread_;  // last: it uses the rest

  template <auto member, class Object>
  friend int handle(sd_bus_message* message, void* object, sd_bus_error* error);
};

/// A member function as sd-bus calls it: `handle<&Class::onAnswer, Class>` with the object as its userdata.
template <auto member, class Object>
int handle(sd_bus_message* message, void* object, sd_bus_error*) {
  (static_cast<Object*>(object)->*member)(message);
  return 0;
}

/// Why an answer is an error, for people; absent when it is none.
std::optional<std::string> errorOf(sd_bus_message* answer);

/// The numbers of a dictionary of properties; a boolean is 0 or 1, a time in seconds and microseconds is in seconds.
/// What is no number is left out.
std::map<std::string, double> numbersOf(sd_bus_message* answer);

}  // namespace tarvo::receivers
