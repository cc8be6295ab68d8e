/// @file
/// The names under which a host tells the SDK something.
#pragma once

/// The names under which a host tells the SDK something.
namespace tarvo::keys {

// Of what describes the host: its property list, or the dictionary given to platform::setInfoDictionary.

// Texts.
/// The host's own identifier, in reverse-DNS form; sent with each position as the name of the application.
inline constexpr const char* kBundleIdentifier = "CFBundleIdentifier";
/// The key by which the backend knows the host's account.
inline constexpr const char* kApiKey = "TarvoApiKey";
/// The client's identifier, a part of each address of the backend.
inline constexpr const char* kClientID = "TarvoClientID";

// Options (tarvo/DeliveryOptions.h, tarvo/StorageLimits.h), read when they are first asked for, or not at all if the
// host has set them by then. A value of another type or below zero is left out, with a line in the system log.
inline constexpr const char* kConfirmedDelivery = "TarvoConfirmedDelivery";    ///< Boolean
inline constexpr const char* kLeastPassInterval = "TarvoLeastPassInterval";    ///< number: seconds
inline constexpr const char* kNetworkIsMetered = "TarvoNetworkIsMetered";      ///< Boolean
inline constexpr const char* kMeteredBytesPerDay = "TarvoMeteredBytesPerDay";  ///< integer
inline constexpr const char* kDropProtocolBreaks = "TarvoDropProtocolBreaks";  ///< Boolean
inline constexpr const char* kPositionAge = "TarvoPositionAge";                ///< number: seconds
inline constexpr const char* kStoreBytes = "TarvoStoreBytes";                  ///< integer
inline constexpr const char* kLogAge = "TarvoLogAge";                          ///< number: seconds
inline constexpr const char* kLogBytes = "TarvoLogBytes";                      ///< integer

// Of the user defaults (platform::UserDefaults).

/// Integer: 10 switches the log file off, any other number but 0 on; 0 leaves it as it was. The backend may set it too.
inline constexpr const char* kLogLevel = "tarvologlevel";
/// Integer, read-only: the mode of the last activation. A fresh process does not take it up.
inline constexpr const char* kActivateMode = "ACTIVATE_STATUS_YES";

}  // namespace tarvo::keys
