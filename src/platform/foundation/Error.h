#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include <tarvo/platform/Value.h>

#include "platform/foundation/FatalError.h"

namespace tarvo::platform {

/// What went wrong, as the platform tells it: a domain, a code in it, and details for the log.
struct Error {
  std::string domain;
  std::int64_t code = 0;
  std::string localizedDescription;
  Dictionary userInfo;

  /// `Error Domain=D Code=1 "text" UserInfo={k=v, k2=v2}`
  std::string description() const;
};

/// The four keys of the user information that the platform names.
inline constexpr const char* NSLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr const char* NSLocalizedFailureReasonErrorKey = "NSLocalizedFailureReason";
inline constexpr const char* NSUnderlyingErrorKey = "NSUnderlyingError";
inline constexpr const char* NSCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr const char* NSURLErrorDomain = "NSURLErrorDomain";

/// A value or the error that stands in its place.
template <class T>
class Result {
 public:
  Result(T value) : data_(std::in_place_index<0>, std::move(value)) {}
  Result(Error error) : data_(std::in_place_index<1>, std::move(error)) {}

  explicit operator bool() const { return data_.index() == 0; }
  /// The value; asking a failure for it is a programming error.
  T& value() {
    if (!*this) fatalError("value of a failed result: " + error().description());
    return std::get<0>(data_);
  }
  T& operator*() & { return value(); }
  /// Of a temporary the value itself, so that nothing refers into it.
  T operator*() && { return std::move(value()); }
  T* operator->() { return &value(); }
  const Error& error() const { return std::get<1>(data_); }

 private:
  std::variant<T, Error> data_;
};

}  // namespace tarvo::platform
