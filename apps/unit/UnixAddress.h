#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>

namespace tarvo::unit {

/// The address of `control` in a folder, however long its path is: a socket's own address has room for 107 bytes, so it
/// goes by way of a descriptor of the folder, which this holds.
///
/// Threads: any. Errors: std::system_error where the folder cannot be opened.
class UnixAddress {
 public:
  explicit UnixAddress(const std::filesystem::path& folder);
  ~UnixAddress();
  UnixAddress(const UnixAddress&) = delete;
  UnixAddress& operator=(const UnixAddress&) = delete;

  const sockaddr* get() const { return static_cast<const sockaddr*>(static_cast<const void*>(&address_)); }
  socklen_t size() const { return sizeof address_; }
  const char* path() const { return address_.sun_path; }

 private:
  int folder_ = -1;
  sockaddr_un address_{};
};

}  // namespace tarvo::unit
