#include "platform/foundation/Json.h"

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

constexpr std::size_t kMaxBytes = 64U << 20;
constexpr std::size_t kMaxDepth = 512;
// Tiny values ("[0,0,0") take thirty times their text in memory. Ordinary texts of the full size hold about this many.
constexpr std::size_t kMaxValues = 2U << 20;

Error cocoaError(std::int64_t code, std::string_view text, std::string_view details) {
  return Error{.domain = NSCocoaErrorDomain,
               .code = code,
               .localizedDescription = std::string(text),
               .userInfo = {{"NSDebugDescription", details}}};
}

Error unreadable(std::string_view details) {
  return cocoaError(3840, "The data couldn’t be read because it isn’t in the correct format.", details);
}

/// Builds the value while the parser reads, so that depth and number are checked before the memory is spent.
class Builder final : public nlohmann::json_sax<nlohmann::json> {
 public:
  Value take() { return std::move(root_); }
  const std::string& failure() const { return failure_; }

  bool null() override { return put(nullptr); }
  bool boolean(bool value) override { return put(value); }
  bool number_integer(number_integer_t value) override { return put(std::int64_t{value}); }
  bool number_unsigned(number_unsigned_t value) override {
    if (value > std::uint64_t{std::numeric_limits<std::int64_t>::max()}) return put(static_cast<double>(value));
    return put(static_cast<std::int64_t>(value));
  }
  bool number_float(number_float_t value, const string_t&) override { return put(value); }
  bool string(string_t& value) override { return put(std::move(value)); }
  bool binary(binary_t&) override { return refuse("binary value"); }
  bool key(string_t& value) override {
    key_ = std::move(value);
    return true;
  }
  bool start_object(std::size_t) override { return open(false); }
  bool start_array(std::size_t) override { return open(true); }
  bool end_object() override { return put(close().dictionary); }
  bool end_array() override { return put(close().array); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& error) override {
    return refuse(error.what());
  }

 private:
  /// A container that is still open: one of the two, and its own key in the container around it.
  struct Level {
    bool isArray;
    std::string key;
    Array array;
    Dictionary dictionary;
  };

  bool open(bool isArray) {
    if (levels_.size() == kMaxDepth) return refuse("nested too deep");
    levels_.push_back({.isArray = isArray, .key = std::move(key_)});
    return true;
  }

  Level close() {
    Level level = std::move(levels_.back());
    levels_.pop_back();
    key_ = std::move(level.key);
    return level;
  }

  bool put(Value value) {
    if (++count_ > kMaxValues) return refuse("too many values");
    if (levels_.empty()) {
      root_ = std::move(value);
    } else if (levels_.back().isArray) {
      levels_.back().array.push_back(std::move(value));
    } else {
      levels_.back().dictionary.insert_or_assign(std::move(key_), std::move(value));
    }
    return true;
  }

  bool refuse(std::string why) {
    failure_ = std::move(why);
    return false;
  }

  Value root_;
  std::vector<Level> levels_;
  std::string key_;
  std::string failure_;
  std::size_t count_ = 0;
};

/// Appends compact text; throws nlohmann's exception for malformed UTF-8 and answers false for what JSON cannot hold.
bool write(std::string& out, const Value& value, std::size_t depth);

void writeText(std::string& out, const std::string& text) { out.append(nlohmann::json(text).dump()); }

bool writeArray(std::string& out, const Array& array, std::size_t depth) {
  char separator = '[';
  for (const Value& item : array) {
    out.push_back(std::exchange(separator, ','));
    if (!write(out, item, depth)) return false;
  }
  out.append(array.empty() ? "[]" : "]");
  return true;
}

bool writeDictionary(std::string& out, const Dictionary& dictionary, std::size_t depth) {
  char separator = '{';
  for (const auto& [key, item] : dictionary) {
    out.push_back(std::exchange(separator, ','));
    writeText(out, key);
    out.push_back(':');
    if (!write(out, item, depth)) return false;
  }
  out.append(dictionary.empty() ? "{}" : "}");
  return true;
}

bool write(std::string& out, const Value& value, std::size_t depth) {
  if (const std::string* text = value.asString()) {
    writeText(out, *text);
  } else if (const Array* array = value.asArray()) {
    return depth < kMaxDepth && writeArray(out, *array, depth + 1);
  } else if (const Dictionary* dictionary = value.asDictionary()) {
    return depth < kMaxDepth && writeDictionary(out, *dictionary, depth + 1);
  } else if (value.isNull()) {
    out.append("null");
  } else {
    const auto number = value.asDouble();
    if (number && !std::isfinite(*number)) return false;
    out += concat(value);
  }
  return true;
}

}  // namespace

Result<Value> parseJson(std::string_view text) {
  if (text.size() > kMaxBytes) return unreadable("too large");
  Builder builder;
  if (!nlohmann::json::sax_parse(text, &builder)) return unreadable(builder.failure());
  return builder.take();
}

bool isValidJsonObject(const Value& value) { return static_cast<bool>(serializeJson(value)); }

Result<std::string> serializeJson(const Value& value) {
  std::string why = "no array or dictionary at the top, a number that is not finite, or nested too deep";
  try {
    std::string out;
    if ((value.asArray() || value.asDictionary()) && write(out, value, 0)) return out;
  } catch (const nlohmann::json::exception& error) {
    why = error.what();
  }
  return cocoaError(3851, "The data couldn’t be written because it isn’t in the correct format.", why);
}

}  // namespace tarvo::platform
