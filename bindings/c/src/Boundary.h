#pragma once

#include <tarvo-c/tarvo.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include <tarvo/platform/Date.h>
#include <tarvo/platform/Value.h>

namespace tarvo::c {

/// Ends a function of the interface with that result. Thrown by what reads arguments, before anything is done.
struct Refusal {
  tarvo_result result;
};

/// Whether this process is a child, forked from the one that has the SDK and without its threads.
bool isForked();
/// From now on a child is told from this process.
void watchForks();

/// Marks the calling thread as one that runs code of the host for the SDK, for as long as it lives.
class InsideCallback {
 public:
  enum class Kind { callback, log };
  explicit InsideCallback(Kind kind = Kind::callback);
  ~InsideCallback();
  InsideCallback(const InsideCallback&) = delete;
  InsideCallback& operator=(const InsideCallback&) = delete;

  static bool any();
  /// In the midst of the SDK's work: nothing may be called.
  static bool log();

 private:
  Kind kind_;
};

inline bool isUsable() { return !isForked() && !InsideCallback::log(); }

/// Runs a function of the interface: nothing leaves it but a result.
tarvo_result run(tarvo_result (*call)(void* body), void* body) noexcept;

/// What every function of the interface runs in.
template <class Body>
tarvo_result bounded(Body body) noexcept {
  return run([](void* called) { return (*static_cast<Body*>(called))(); }, &body);
}

// Readers of arguments; each refuses what it cannot take.

template <class T>
T* required(T* pointer) {
  if (pointer == nullptr) throw Refusal{TARVO_BAD_ARGUMENT};
  return pointer;
}

/// For what waits for callbacks to return.
void outsideCallbacks();
/// UTF-8.
std::string text(const char* text);
/// Bytes, as the system takes them for a path; not empty.
std::string path(const char* path);
double finiteNumber(double number);
/// Not negative.
double span(double seconds);
/// One of 0 to `last`.
template <class Enum>
Enum oneOf(Enum value, Enum last) {
  if (static_cast<int>(value) < 0 || value > last) throw Refusal{TARVO_BAD_ARGUMENT};
  return value;
}
/// A bound of a span of time; absent for NaN. What lies beyond the years 1 to 4001 is moved there.
std::optional<platform::Date> bound(double date);
platform::Value json(const char* text);
platform::Dictionary jsonObject(const char* text);

/// A copy for the caller, whose it is.
char* given(std::string_view text);

/// Larger than any record will be: a size that nobody has set.
inline constexpr std::size_t kLargestRecord = 4096;

template <class Record>
std::size_t sizeOf(const Record* record) {
  const std::size_t size = required(record)->size;
  if (size < sizeof(std::size_t) || size > kLargestRecord || size % alignof(Record) != 0)
    throw Refusal{TARVO_BAD_ARGUMENT};  // or half a pointer would be taken
  return size;
}

/// The caller's record laid over `known`: what the caller's version lacks keeps its value. Refuses what this version
/// lacks, unless it is 0.
template <class Record>
Record read(const Record* record, Record known) {
  const std::size_t size = sizeOf(record);
  const auto* bytes = reinterpret_cast<const unsigned char*>(record);
  if (size > sizeof(Record) && std::any_of(bytes + sizeof(Record), bytes + size, [](auto byte) { return byte != 0; }))
    throw Refusal{TARVO_BAD_ARGUMENT};
  std::memcpy(&known, bytes, std::min(size, sizeof(Record)));
  return known;
}

/// Writes as much as the caller's version has; what this version lacks becomes 0.
template <class Record>
void write(Record* record, Record value) {
  value.size = sizeOf(record);
  auto* bytes = reinterpret_cast<unsigned char*>(record);
  std::memcpy(bytes, &value, std::min(value.size, sizeof(Record)));
  if (value.size > sizeof(Record)) std::memset(bytes + sizeof(Record), 0, value.size - sizeof(Record));
}

}  // namespace tarvo::c
