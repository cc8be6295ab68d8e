#pragma once

#include <string>

namespace tarvo::sandbox {

/// The one customer that the backend serves.
struct Account {
  std::string clientID, apiKey, apiSecret;
};

}  // namespace tarvo::sandbox
