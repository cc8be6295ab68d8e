#pragma once

#include <tarvo-c/tarvo.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include <tarvo/LocationsHistory.h>
#include <tarvo/Tarvo.h>
#include <tarvo/Trip.h>
#include <tarvo/platform/Device.h>

#include "Boundary.h"
#include "Callbacks.h"

namespace tarvo::c {

/// What a handle stands for. Held by its handle's shares and by the calls that use it.
struct Sdk {
  Tarvo tarvo;
  Host host;
};

struct History {
  LocationsHistory content;
};

/// Reads a history in pieces. Threads: any; a call waits for the one before it.
struct Cursor {
  explicit Cursor(std::shared_ptr<History> of) : history(std::move(of)) {}

  const std::shared_ptr<History> history;
  std::mutex mutex;
  LocationRecords::Place place;       // the rest: under the mutex
  std::vector<LocationRecord> piece;  ///< read and not all given
  std::size_t next = 0;
};

struct PredictedTrip {
  Trip content;
};

struct ShownAlert {
  platform::Alert content;
  std::atomic<bool> chosen{false};
};

/// Which object a C type stands for, and the number that its handles carry.
template <class Handle>
struct Kind;
template <>
struct Kind<tarvo_sdk> {
  using Object = Sdk;
  static constexpr std::uintptr_t number = 1;
};
template <>
struct Kind<tarvo_history> {
  using Object = History;
  static constexpr std::uintptr_t number = 2;
};
template <>
struct Kind<tarvo_cursor> {
  using Object = Cursor;
  static constexpr std::uintptr_t number = 3;
};
template <>
struct Kind<tarvo_trip> {
  using Object = PredictedTrip;
  static constexpr std::uintptr_t number = 4;
};
template <>
struct Kind<tarvo_alert> {
  using Object = ShownAlert;
  static constexpr std::uintptr_t number = 5;
};

/// The handles of the process. A handle is a number that is given out once, never an address: one that was given back,
/// or was never given, is told from those in use without a look at what it may point to.
///
/// Threads: any. Objects go outside the lock.
class Handles {
 public:
  static Handles& shared();

  std::uintptr_t add(std::shared_ptr<void> object, std::uintptr_t kind);
  std::shared_ptr<void> find(std::uintptr_t handle, std::uintptr_t kind);
  /// One share more; false for what is no such handle.
  bool ref(std::uintptr_t handle, std::uintptr_t kind);
  /// One share less; with the last the object goes, unless a call is using it.
  void unref(std::uintptr_t handle, std::uintptr_t kind);
  /// Takes it out, whatever shares there are; false for what is none.
  bool remove(std::uintptr_t handle);
  std::size_t count();

 private:
  struct Entry {
    std::shared_ptr<void> object;
    std::size_t shares = 1;
  };
  std::mutex mutex_;
  std::uintptr_t last_ = 0;
  std::unordered_map<std::uintptr_t, Entry> entries_;
};

template <class Handle>
std::uintptr_t numberOf(Handle* handle) {
  return reinterpret_cast<std::uintptr_t>(handle);
}

template <class Handle>
Handle* handleTo(std::shared_ptr<typename Kind<Handle>::Object> object) {
  return reinterpret_cast<Handle*>(Handles::shared().add(std::move(object), Kind<Handle>::number));
}

/// The object behind a handle; refuses what is none.
template <class Handle>
std::shared_ptr<typename Kind<Handle>::Object> at(Handle* handle) {
  auto object = Handles::shared().find(numberOf(required(handle)), Kind<Handle>::number);
  if (!object) throw Refusal{TARVO_BAD_HANDLE};
  return std::static_pointer_cast<typename Kind<Handle>::Object>(std::move(object));
}

template <class Handle>
Handle* refTo(Handle* handle) noexcept {
  return isUsable() && Handles::shared().ref(numberOf(handle), Kind<Handle>::number) ? handle : nullptr;
}

template <class Handle>
void unrefTo(Handle* handle) noexcept {
  if (!isForked()) Handles::shared().unref(numberOf(handle), Kind<Handle>::number);
}

/// Whether the engine has a position to store for a push message.
bool canTakePush(Tarvo& tarvo);

/// Between the C record and the SDK's.
tarvo_fix fixOf(const platform::CLLocation& fix);
platform::CLLocation locationOf(const tarvo_fix& fix);

}  // namespace tarvo::c
