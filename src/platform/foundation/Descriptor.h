#pragma once

#include <unistd.h>

#include <utility>

namespace tarvo::platform {

/// Owns an open file, socket or the like; closes it at the latest when it goes.
class Descriptor {
 public:
  /// -1: nothing is open.
  explicit Descriptor(int number = -1) : number_(number) {}
  ~Descriptor() {
    if (isOpen()) close();
  }
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      if (isOpen()) close();
      number_ = std::exchange(other.number_, -1);
    }
    return *this;
  }

  bool isOpen() const { return number_ >= 0; }
  int get() const { return number_; }
  /// Some file systems report a failed write only here.
  bool close() { return ::close(std::exchange(number_, -1)) == 0; }

 private:
  int number_;
};

}  // namespace tarvo::platform
