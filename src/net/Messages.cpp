#include "net/Messages.h"

#include <utility>

#include "log/Log.h"
#include "net/ProtocolBreak.h"
#include "platform/foundation/Encoding.h"
#include "platform/foundation/FatalError.h"
#include "platform/foundation/Json.h"
#include "platform/foundation/Text.h"

namespace tarvo {
namespace {

using platform::Dictionary;
using platform::Value;

constexpr int kBackgroundServiceType = 3;

platform::URLRequest authorizedRequest(std::string url, std::string_view method, const Credentials& credentials) {
  platform::URLRequest request;
  request.url = std::move(url);
  if (!platform::isValidHttpUrl(request.url)) platform::fatalError("no valid request URL: " + request.url);
  request.httpMethod = method;
  request.addValue("Authorization",
                   "Basic " + platform::base64Encode(platform::concat(credentials.name, ":", credentials.secret)));
  return request;
}

[[noreturn]] void wrongType(std::string_view key, std::string_view expected) {
  protocolBreak(platform::concat("the backend's \"", key, "\" is no ", expected));
}

void logError(const CallTexts& texts, const Reply& reply) {
  if (!reply.error) return;
  Log::error(texts.error, texts.bareError ? reply.error->localizedDescription : printedDescription(*reply.error));
}

}  // namespace

platform::URLRequest buildRequest(std::string_view versionedBase, std::string_view clientID, std::string_view method,
                                  std::string_view path, const Credentials& credentials,
                                  std::optional<std::string> body) {
  auto request = authorizedRequest(platform::concat(versionedBase, clientID, "/", path), method, credentials);
  request.addValue("Content-Type", "application/json");
  request.addValue("Accept", "application/json");
  request.networkServiceType = kBackgroundServiceType;
  request.httpBody = std::move(body);
  return request;
}

platform::URLRequest buildLogUpload(std::string_view versionedBase, std::string_view clientID,
                                    const Credentials& credentials) {
  auto request =
      authorizedRequest(platform::concat(versionedBase, clientID, "/", endpoints::logAPI), "POST", credentials);
  request.addValue("Content-Type", "multipart/form-data;boundary=boundary");
  request.addValue("Connection", "Keep-Alive");
  request.addValue("ENCTYPE", "multipart/form-data");
  request.addValue("uploaded_file", std::string(endpoints::logFile));
  return request;
}

std::optional<std::string> callBody(const CallTexts& texts, platform::Dictionary values) {
  const platform::Value body(std::move(values));
  if (!platform::isValidJsonObject(body)) {
    Log::error(texts.problem, mainThread());
    return std::nullopt;
  }
  auto json = platform::serializeJson(body);
  if (!json) {
    Log::error(texts.unresolved, platform::errorAndUserInfo(json.error()));
    return std::nullopt;
  }
  return std::move(*json);
}

std::string printedDescription(const platform::Error& error) {
  return platform::printedOptional(error.localizedDescription);
}

void logOutcome(const CallTexts& texts, const Reply& reply) {
  logError(texts, reply);
  if (reply.refused()) {
    Log::debug(texts.status, reply.response->statusCode);
    Log::debug(texts.response, reply.response->debugDescription());
  }
  if (reply.ok() && !texts.success.empty()) Log::debug(texts.success);
}

void logFailure(const CallTexts& texts, const Reply& reply) {
  if (reply.refused()) {
    const auto& response = *reply.response;
    if (texts.response.empty())
      Log::debug(texts.status, response.statusCode);
    else
      Log::debug(texts.status, response.statusCode, texts.response, response.debugDescription());
  }
  logError(texts, reply);
}

std::optional<Dictionary> acceptedAnswer(const CallTexts& texts, Reply& reply, WrongSuccess wrong) {
  if (!reply.data) return std::nullopt;
  auto json = platform::parseJson(*std::exchange(reply.data, std::nullopt));
  if (!json) {
    Log::error(texts.parse, json.error().localizedDescription);
    return std::nullopt;
  }
  Dictionary* answer = json->asDictionary();
  if (answer == nullptr) return std::nullopt;
  if (!texts.success.empty()) Log::debug(texts.success, *answer);
  const Value* success = find(*answer, "success");
  if (success == nullptr) return std::nullopt;
  const bool accepted = wrong == WrongSuccess::isFailure ? success->asBool() == true : requireBool(*success, "success");
  if (!accepted) return std::nullopt;
  return std::move(*answer);
}

std::optional<Dictionary> readAnswer(const CallTexts& texts, Reply& reply) {
  logFailure(texts, reply);
  return reply.error ? std::nullopt : acceptedAnswer(texts, reply);
}

bool requireBool(const Value& value, std::string_view key) {
  if (const auto boolean = value.asBool()) return *boolean;
  wrongType(key, "Boolean");
}

std::int64_t requireInteger(const Value& value, std::string_view key) {
  if (const auto integer = value.asInteger()) return *integer;
  wrongType(key, "integer");
}

double requireNumber(const Value& value, std::string_view key) {
  if (const auto number = value.asDouble()) return *number;
  wrongType(key, "number");
}

std::string requireText(const Value& value, std::string_view key) {
  if (const std::string* text = value.asString()) return *text;
  wrongType(key, "text");
}

Dictionary requireObject(Value&& value, std::string_view key) {
  if (Dictionary* object = value.asDictionary()) return std::move(*object);
  wrongType(key, "object");
}

std::vector<Dictionary> requireObjects(Value&& value, std::string_view key) {
  platform::Array* elements = value.asArray();
  if (elements == nullptr) wrongType(key, "array");
  std::vector<Dictionary> objects;
  objects.reserve(elements->size());
  for (Value& element : *elements) objects.push_back(requireObject(std::move(element), key));
  return objects;
}

const Dictionary* firstResult(const Dictionary& answer) {
  const Value* results = find(answer, "results");
  const platform::Array* elements = results == nullptr ? nullptr : results->asArray();
  return elements == nullptr || elements->empty() ? nullptr : elements->front().asDictionary();
}

}  // namespace tarvo
