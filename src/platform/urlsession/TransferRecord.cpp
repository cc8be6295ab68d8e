#include "platform/urlsession/TransferRecord.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "platform/foundation/Encoding.h"
#include "platform/foundation/Json.h"

namespace tarvo::platform {
namespace {

/// As long as any transfer may last; keeps what is written finite.
constexpr double kLongestTimeout = 7 * 86400;

/// A text as JSON can hold it: itself, or what stands for its bytes.
Value portable(const std::string& text) {
  if (isValidUtf8(text)) return text;
  return Dictionary{{"base64", base64Encode(text)}};
}

std::optional<std::string> textOf(const Value& value) {
  if (const std::string* text = value.asString()) return *text;
  const Dictionary* bytes = value.asDictionary();
  const auto text = bytes ? findString(*bytes, "base64") : std::nullopt;
  return text ? base64Decode(*text) : std::nullopt;
}

std::optional<std::string> textUnder(const Dictionary& fields, std::string_view key) {
  const Value* value = find(fields, key);
  return value ? textOf(*value) : std::nullopt;
}

std::optional<std::int64_t> integerUnder(const Dictionary& fields, std::string_view key) {
  const Value* value = find(fields, key);
  return value ? value->asInteger() : std::nullopt;
}

Value encodeError(const Error& error) {
  Dictionary details;
  for (const auto& [key, value] : error.userInfo)
    if (const std::string* text = value.asString()) details[key] = portable(*text);
  return Dictionary{{"domain", portable(error.domain)},
                    {"code", error.code},
                    {"text", portable(error.localizedDescription)},
                    {"details", std::move(details)}};
}

std::optional<Error> decodeError(const Value& value) {
  const Dictionary* fields = value.asDictionary();
  if (!fields) return std::nullopt;
  auto domain = textUnder(*fields, "domain");
  const auto code = integerUnder(*fields, "code");
  auto text = textUnder(*fields, "text");
  const Value* details = find(*fields, "details");
  if (!domain || !code || !text || !details || !details->asDictionary()) return std::nullopt;
  Error error{std::move(*domain), *code, std::move(*text), {}};
  for (const auto& [key, detail] : *details->asDictionary()) {
    auto detailText = textOf(detail);
    if (!detailText) return std::nullopt;
    error.userInfo[key] = std::move(*detailText);
  }
  return error;
}

Value encodeOutcome(const TransferOutcome& outcome) {
  Dictionary fields;
  if (outcome.statusCode) fields["status"] = *outcome.statusCode;
  // Always in this form: control characters of a large body would grow sixfold as JSON text.
  if (outcome.data) fields["body"] = base64Encode(*outcome.data);
  if (outcome.error) fields["error"] = encodeError(*outcome.error);
  return fields;
}

std::optional<TransferOutcome> decodeOutcome(const Value& value) {
  const Dictionary* fields = value.asDictionary();
  if (!fields) return std::nullopt;
  TransferOutcome outcome;
  if (const Value* status = find(*fields, "status")) {
    const auto code = status->asInteger();
    if (!code || *code < 200 || *code > std::numeric_limits<int>::max()) return std::nullopt;
    outcome.statusCode = static_cast<int>(*code);
  }
  if (const Value* body = find(*fields, "body")) {
    const std::string* text = body->asString();
    outcome.data = text ? base64Decode(*text) : std::nullopt;
    if (!outcome.data) return std::nullopt;
  }
  if (const Value* error = find(*fields, "error")) {
    outcome.error = decodeError(*error);
    if (!outcome.error) return std::nullopt;
  }
  return outcome;
}

std::optional<URLRequest> decodeRequest(const Dictionary& fields) {
  auto url = textUnder(fields, "url");
  auto method = textUnder(fields, "method");
  const auto service = integerUnder(fields, "service");
  const Value* timeout = find(fields, "timeout");
  const Value* headers = find(fields, "headers");
  if (!url || !method || !service || !std::in_range<int>(*service) || !timeout || !timeout->asDouble() || !headers ||
      !headers->asArray())
    return std::nullopt;
  URLRequest request{std::move(*url), std::move(*method), {}, {}, Seconds(*timeout->asDouble())};
  request.networkServiceType = static_cast<int>(*service);
  for (const Value& header : *headers->asArray()) {
    const Array* pair = header.asArray();
    if (!pair || pair->size() != 2) return std::nullopt;
    auto name = textOf(pair->front());
    auto value = textOf(pair->back());
    if (!name || !value) return std::nullopt;
    request.addValue(std::move(*name), std::move(*value));
  }
  return request;
}

}  // namespace

std::string encodeResumed(const URLSessionUploadTask& task) {
  const URLRequest& request = task.originalRequest;
  Array headers;
  for (const auto& [name, value] : request.headers) {
    Array pair;
    pair.push_back(portable(name));
    pair.push_back(portable(value));
    headers.push_back(std::move(pair));
  }
  const double timeout = request.timeoutInterval.count();
  Dictionary fields{
      {"identifier", task.taskIdentifier},    {"file", portable(task.file.native())},
      {"url", portable(request.url)},         {"method", portable(request.httpMethod)},
      {"headers", std::move(headers)},        {"timeout", timeout > 0 ? std::min(timeout, kLongestTimeout) : 0.0},
      {"service", request.networkServiceType}};
  return serializeJson(std::move(fields)).value();
}

std::string encodeEnded(std::int64_t taskIdentifier, const TransferOutcome& outcome) {
  return serializeJson(Dictionary{{"identifier", taskIdentifier}, {"outcome", encodeOutcome(outcome)}}).value();
}

std::string encodeOver(std::int64_t taskIdentifier) {
  return serializeJson(Dictionary{{"identifier", taskIdentifier}, {"over", true}}).value();
}

std::optional<TransferNote> decode(std::string_view line) {
  auto parsed = parseJson(line);
  const Dictionary* fields = parsed ? parsed->asDictionary() : nullptr;
  const auto identifier = fields ? integerUnder(*fields, "identifier") : std::nullopt;
  if (!identifier) return std::nullopt;
  TransferNote note{*identifier, {}, {}};
  if (const Value* over = find(*fields, "over")) return over->asBool() == true ? std::optional(note) : std::nullopt;
  const Value* outcome = find(*fields, "outcome");
  if (outcome != nullptr) {
    note.outcome = decodeOutcome(*outcome);
    if (!note.outcome) return std::nullopt;
  }
  if (outcome != nullptr && find(*fields, "file") == nullptr) return note;
  auto file = textUnder(*fields, "file");
  auto request = decodeRequest(*fields);
  if (!file || !request) return std::nullopt;
  note.task = URLSessionUploadTask{*identifier, std::move(*request), std::move(*file)};
  return note;
}

}  // namespace tarvo::platform
