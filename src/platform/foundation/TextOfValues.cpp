#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

void appendNested(TextBuilder& out, const Value& value) {
  if (const std::string* text = value.asString()) {
    out.add('"');
    out.add(*text);
    out.add('"');
  } else {
    append(out, value);
  }
}

void append(TextBuilder& out, const Array& array) {
  out.add('[');
  for (std::size_t i = 0; i < array.size(); ++i) {
    if (i > 0) out.add(", ");
    appendNested(out, array[i]);
  }
  out.add(']');
}

}  // namespace

void append(TextBuilder& out, const Value& value) {
  if (value.isNull()) {
    out.add("<null>");
  } else if (auto boolean = value.asBool()) {
    append(out, *boolean);
  } else if (auto integer = value.asInteger()) {
    append(out, *integer);
  } else if (auto number = value.asDouble()) {
    append(out, *number);
  } else if (const std::string* text = value.asString()) {
    out.add(*text);
  } else if (const Array* array = value.asArray()) {
    append(out, *array);
  } else {
    append(out, *value.asDictionary());
  }
}

void append(TextBuilder& out, const Dictionary& value) {
  if (value.empty()) {
    out.add("[:]");
    return;
  }
  out.add('[');
  bool first = true;
  for (const auto& [key, entry] : value) {
    out.add(first ? "\"" : ", \"");
    first = false;
    out.add(key);
    out.add("\": ");
    appendNested(out, entry);
  }
  out.add(']');
}

void append(TextBuilder& out, const Error& value) {
  appendAll(out, "Error Domain=", value.domain, " Code=", value.code, " \"",
            value.localizedDescription.empty() ? std::string_view("(null)") : value.localizedDescription, "\"");
  if (value.userInfo.empty()) return;
  out.add(" UserInfo={");
  bool first = true;
  for (const auto& [key, entry] : value.userInfo) {
    if (!first) out.add(", ");
    first = false;
    out.add(key);
    out.add('=');
    append(out, entry);
  }
  out.add('}');
}

std::string Error::description() const { return concat(*this); }

std::string printedOptional(const std::optional<std::string>& text) {
  return text ? "Optional(\"" + *text + "\")" : "nil";
}

std::string errorAndUserInfo(const Error& error) { return concat(error, ", ", error.userInfo); }

}  // namespace tarvo::platform
