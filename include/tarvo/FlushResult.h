/// @file
/// How a flush has ended.
#pragma once

namespace tarvo {

/// How `Tarvo::flush` has ended. After anything but the first two a further call ends the same way until what is told
/// here has changed.
enum class FlushResult {
  delivered,         ///< nothing is left of what had been collected before the call
  timeIsUp,          ///< something is left, and goes with a later pass
  modeForbids,       ///< something is left, and the mode is below 8
  notRegistered,     ///< the same, and the device has no user and was given no secret to get one
  bytesUsedUp,       ///< the same, and `DeliveryOptions::meteredBytesPerDay` holds it back until tomorrow (UTC)
  sessionFailed,     ///< the same, and this process uploads no more since its background session has failed
  storeUnavailable,  ///< the store cannot be opened, was lost, or another process writes to it
};

}  // namespace tarvo
