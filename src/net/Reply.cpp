#include "net/Reply.h"

#include <utility>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/Text.h"

namespace tarvo {
namespace {

using platform::Dictionary;
using platform::Value;

[[noreturn]] void wrongType(std::string_view key, std::string_view expected) {
  platform::fatalError(platform::concat("the backend's \"", key, "\" is no ", expected));
}

}  // namespace

std::string printedDescription(const platform::Error& error) {
  return platform::printedOptional(error.localizedDescription);
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

bool isSuccess(const Dictionary& answer) {
  const Value* success = find(answer, "success");
  return success != nullptr && requireBool(*success, "success");
}

const Dictionary* firstResult(const Dictionary& answer) {
  const Value* results = find(answer, "results");
  const platform::Array* elements = results == nullptr ? nullptr : results->asArray();
  return elements == nullptr || elements->empty() ? nullptr : elements->front().asDictionary();
}

}  // namespace tarvo
