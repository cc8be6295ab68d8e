#pragma once

#include <string>

namespace tarvo::sandbox {

/// Who a device is to the backend.
struct Identity {
  std::string uuid, secret, creationDate;
};

/// A random UUID of version 4, 128 random bits as secret, and the time of now such as 2024-06-15T10:11:12.034+0000.
Identity newIdentity();

}  // namespace tarvo::sandbox
