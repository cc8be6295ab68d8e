#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/urlsession/URLRequest.h"

namespace tarvo {

/// Name and password of HTTP Basic.
struct Credentials {
  std::string name;
  std::string secret;
};

/// A REST request, complete: URL, JSON headers, credentials, background service type.
/// The URL is `versionedBase`, the client id, "/" and `path` one after the other, nothing escaped; one that does not
/// parse stops the process. Threads: any.
platform::URLRequest buildRequest(std::string_view versionedBase, std::string_view clientID, std::string_view method,
                                  std::string_view path, const Credentials& credentials,
                                  std::optional<std::string> body);

/// The upload of a log file, which is the whole multipart body itself: without the headers of the JSON calls.
platform::URLRequest buildLogUpload(std::string_view versionedBase, std::string_view clientID,
                                    const Credentials& credentials);

}  // namespace tarvo
