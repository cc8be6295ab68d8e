#pragma once

/// The names under which a host tells the SDK something.
namespace tarvo::keys {

// Of what describes the host: its property list, or the dictionary given to platform::setInfoDictionary. All texts.

/// The host's own identifier, in reverse-DNS form; sent with each position as the name of the application.
inline constexpr const char* kBundleIdentifier = "CFBundleIdentifier";
/// The key by which the backend knows the host's account.
inline constexpr const char* kApiKey = "TarvoApiKey";
/// The client's identifier, a part of each address of the backend.
inline constexpr const char* kClientID = "TarvoClientID";

// Of the user defaults (platform::UserDefaults).

/// Integer: 10 switches the log file off, any other number but 0 on; 0 leaves it as it was. The backend may set it too.
inline constexpr const char* kLogLevel = "tarvologlevel";
/// Integer, read-only: the mode of the last activation. A fresh process does not take it up.
inline constexpr const char* kActivateMode = "ACTIVATE_STATUS_YES";

}  // namespace tarvo::keys
