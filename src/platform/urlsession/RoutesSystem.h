#pragma once

#include <sys/socket.h>

#include <cstdint>

namespace tarvo::platform {

// What the operating system knows of the ways out of this device, in the flags of Reachability.h: a port writes these
// functions (docs/porting.md). They send nothing, wait for nothing and keep nothing.
//
// Threads: any. Errors: a way that cannot be looked up, for want of a descriptor for instance, counts as none.

/// The way that a packet to an IPv4 or IPv6 address would take now, whatever the port in it: Reachable if there is a
/// route and the interface to which it leads is up and connected, with IsLocalAddress if it leads back to this device,
/// with IsWWAN if it leaves by a mobile network. 0 for none, and for an address of another family.
std::uint32_t flagsOfRouteTo(const sockaddr& address);

/// Those of all that must leave by one interface, by the number that if_nametoindex gives: Reachable if it is up and
/// connected, with IsWWAN as above, never IsLocalAddress. 0 for 0 and for a number that no interface has.
std::uint32_t flagsOfInterface(unsigned index);

}  // namespace tarvo::platform
