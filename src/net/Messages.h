#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/platform/Value.h>

#include "platform/foundation/Error.h"
#include "platform/urlsession/URLRequest.h"
#include "settings/Settings.h"

// What the client and the backend say to each other: paths, requests, bodies, answers. Threads: any.

namespace tarvo {

namespace endpoints {

/// Stands between the backend's address and the client id.
inline constexpr std::string_view kVersion = "/v1/";

/// Paths of the backend's REST service, behind the client id.
inline constexpr std::string_view usersAPI = "users";
inline constexpr std::string_view positionsAPI = "positions";
inline constexpr std::string_view logAPI = "uplog";
inline constexpr std::string_view userConfigAPI = "userconf";
inline constexpr std::string_view tokensAPI = "tokens";
inline constexpr std::string_view tripAPI = "predictions";
inline constexpr std::string_view locationHistoryAPI = "pasttrips";
inline constexpr std::string_view poiAPI = "pois";
inline constexpr std::string_view resetBackendAPI = "resetbackend";
inline constexpr std::string_view resetGeoProfileAPI = "resetgeoprofile";
inline constexpr std::string_view subscriptionRegisterAPI = "subscriptions/register";
inline constexpr std::string_view subscriptionUnregiterAPI = "subscriptions/unregister";
inline constexpr std::string_view setTagsAPI = "tags/set";
inline constexpr std::string_view unsetTagsAPI = "tags/unset";

/// What a log upload calls its file.
inline constexpr std::string_view logFile = "log";
/// Reserved names of a data file and a user file; no call uses them.
inline constexpr std::string_view dataFile = "marrowgate-tarvo-data";
inline constexpr std::string_view userFile = "marrowgate-tarvo-user";

}  // namespace endpoints

/// A REST request, complete: URL, JSON headers, credentials, background service type.
/// The URL is `versionedBase`, the client id, "/" and `path` one after the other, nothing escaped; one that does not
/// parse stops the process. Threads: any.
platform::URLRequest buildRequest(std::string_view versionedBase, std::string_view clientID, std::string_view method,
                                  std::string_view path, const Credentials& credentials,
                                  std::optional<std::string> body);

/// The upload of a log file, which is the whole multipart body itself: without the headers of the JSON calls.
platform::URLRequest buildLogUpload(std::string_view versionedBase, std::string_view clientID,
                                    const Credentials& credentials);

/// What became of a request. A status and an error can stand side by side; an empty body is no data.
struct Reply {
  std::optional<std::string> data;
  std::optional<platform::HTTPURLResponse> response;
  std::optional<platform::Error> error;

  /// A status other than 200; no status at all is none.
  bool refused() const { return response && response->statusCode != 200; }
  bool ok() const { return response && response->statusCode == 200; }
};

/// The beginnings of the lines that one call writes; those that it does not have are empty.
struct CallTexts {
  std::string_view problem;     ///< the values are no JSON object
  std::string_view unresolved;  ///< or cannot be written all the same
  std::string_view status;      ///< a status other than 200
  std::string_view response;    ///< the response that goes with it
  std::string_view error;       ///< the transfer has failed
  std::string_view parse;       ///< the body is no JSON
  std::string_view success;
  /// Of an error its description alone, which others print as an optional.
  bool bareError = false;
};

/// The values as JSON; absent, with a line in the log, when they cannot be written: the call is dropped.
std::optional<std::string> callBody(const CallTexts& texts, platform::Dictionary values);

/// `Optional("Could not connect to the server.")`
std::string printedDescription(const platform::Error& error);

/// What became of a call whose answer is its status alone: error, status, response and success, each a line.
void logOutcome(const CallTexts& texts, const Reply& reply);

/// What went wrong with a call whose answer is JSON: status and response in one line, then the error.
void logFailure(const CallTexts& texts, const Reply& reply);
/// What an answer is whose "success" is of another type than Boolean.
enum class WrongSuccess { breaksProtocol, isFailure };
/// The JSON object if its "success" is true; else absent. Tells what body and object are. A status other than 200 does
/// not matter: the body still counts. Takes the body out of the reply, for it can be large.
std::optional<platform::Dictionary> acceptedAnswer(const CallTexts& texts, Reply& reply,
                                                   WrongSuccess wrong = WrongSuccess::breaksProtocol);
/// Tells what went wrong, then answers as `acceptedAnswer`; absent too when the transfer has failed.
std::optional<platform::Dictionary> readAnswer(const CallTexts& texts, Reply& reply);

// Values whose type the backend's contract fixes: another type, null included, breaks the protocol. A Boolean is never
// a number.
bool requireBool(const platform::Value& value, std::string_view key);
std::int64_t requireInteger(const platform::Value& value, std::string_view key);
double requireNumber(const platform::Value& value, std::string_view key);
std::string requireText(const platform::Value& value, std::string_view key);
// These take the objects out of the value: an answer can be large, and is not needed twice.
platform::Dictionary requireObject(platform::Value&& value, std::string_view key);
std::vector<platform::Dictionary> requireObjects(platform::Value&& value, std::string_view key);

/// The object that is the first element of "results"; a null pointer when the answer has another shape.
const platform::Dictionary* firstResult(const platform::Dictionary& answer);

}  // namespace tarvo
