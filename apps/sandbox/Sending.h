#pragma once

#include "sandbox/Faults.h"
#include "sandbox/Service.h"

namespace httplib {
struct Request;
struct Response;
}  // namespace httplib

/// How replies go out. A body that breaks off or drips is a content provider of the server's: it announces the whole
/// length, and when it gives up the server closes the connection. A connection that closes without an answer is
/// nothing that the server offers, so its socket is shut down under it.
namespace tarvo::sandbox {

/// As one piece, whatever its manner.
void sendWhole(Reply reply, httplib::Response& response);

/// As its manner says; what drips ends when `faults` close, which must outlive the response. A reply that is dropped
/// says nothing, and whoever drops it calls `closeConnection`.
void send(Reply reply, Faults& faults, httplib::Response& response);

/// Nothing that is sent from here on arrives, and the other side sees the end. Threads: the one that serves the
/// request.
void closeConnection(const httplib::Request& request);

}  // namespace tarvo::sandbox
