#include "sandbox/wire/Bodies.h"

#include <algorithm>
#include <bitset>
#include <charconv>
#include <nlohmann/json.hpp>

namespace tarvo::sandbox {
namespace {

using Json = nlohmann::json;

/// A registration or an account call is a few hundred bytes; more is nobody's device description or tag.
constexpr std::size_t kLargestSmallBody = 64 * 1024;

/// Takes the parser's events and refuses the first that has no place in an upload.
class PositionsReader final : public nlohmann::json_sax<Json> {
 public:
  explicit PositionsReader(std::string_view user) : user_(user) {}

  std::vector<Position> positions;
  std::string refusal;

  bool null() override { return noText(); }
  bool boolean(bool) override { return noText(); }
  bool number_integer(number_integer_t) override { return noText(); }
  bool number_unsigned(number_unsigned_t) override { return noText(); }
  bool number_float(number_float_t, const string_t&) override { return noText(); }
  bool binary(binary_t&) override { return noText(); }

  bool string(string_t& value) override {
    if (place_ != Place::object) return refuse("expected an array of objects");
    positions.back().values[key_] = std::move(value);
    return true;
  }
  bool key(string_t& name) override {
    const auto known = std::find(kPositionKeys.begin(), kPositionKeys.end(), name);
    if (known == kPositionKeys.end()) return refuse("unknown key " + name);
    key_ = static_cast<std::size_t>(known - kPositionKeys.begin());
    if (seen_.test(key_)) return refuse("key given twice: " + name);
    seen_.set(key_);
    return true;
  }
  bool start_object(std::size_t) override {
    if (place_ != Place::array) return refuse("expected an array of flat objects");
    place_ = Place::object;
    seen_.reset();
    positions.emplace_back();
    return true;
  }
  bool end_object() override {
    place_ = Place::array;
    Position& position = positions.back();
    for (std::size_t i = 0; i < kPositionKeys.size(); ++i)
      if (!seen_.test(i)) return refuse(std::string("missing key ") + kPositionKeys[i]);
    const auto id = readNumber(position.values[0]);
    if (!id || *id < 0) return refuse("not a running number: " + position.values[0]);
    position.id = *id;
    if (position.values[1] != user_) return refuse("useruuid is not the user that sends");
    return true;
  }
  bool start_array(std::size_t) override {
    if (place_ != Place::start) return refuse("expected an array of flat objects");
    place_ = Place::array;
    return true;
  }
  bool end_array() override { return positions.empty() ? refuse("no position") : true; }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& error) override {
    return refuse(error.what());
  }

 private:
  enum class Place { start, array, object };

  bool noText() { return refuse("every value must be a text"); }
  bool refuse(std::string why) {
    refusal = std::move(why);
    return false;
  }

  std::string_view user_;
  Place place_ = Place::start;
  std::size_t key_ = 0;
  std::bitset<kPositionKeys.size()> seen_;
};

/// A JSON object of at most 64 KiB.
std::optional<Json> readObject(std::string_view body, std::string& refusal) {
  if (body.size() > kLargestSmallBody) {
    refusal = "longer than 64 KiB";
    return std::nullopt;
  }
  Json json = Json::parse(body, nullptr, /*allow_exceptions=*/false);
  if (json.is_object()) return json;
  refusal = "expected an object";
  return std::nullopt;
}

bool takeText(Json& object, const char* key, std::string& text, std::string& refusal) {
  const auto found = object.find(key);
  if (found != object.end() && found->is_string()) {
    text = std::move(found->get_ref<std::string&>());
    return true;
  }
  refusal = std::string("no text under ") + key;
  return false;
}

std::optional<std::string> decodeBase64(std::string_view text) {
  static constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  if (text.size() % 4 != 0) return std::nullopt;
  for (int padding = 0; padding < 2 && text.ends_with('='); ++padding) text.remove_suffix(1);
  std::string bytes;
  unsigned bits = 0;
  int held = 0;
  for (const char c : text) {
    const std::size_t digit = alphabet.find(c);
    if (digit == std::string_view::npos) return std::nullopt;
    bits = bits << 6 | static_cast<unsigned>(digit);
    held += 6;
    if (held < 8) continue;
    held -= 8;
    bytes += static_cast<char>(bits >> held & 0xff);
  }
  return bytes;
}

}  // namespace

std::optional<std::vector<Position>> readPositions(std::string_view body, std::string_view user, std::string& refusal) {
  PositionsReader reader(user);
  if (!Json::sax_parse(body, &reader)) {
    refusal = std::move(reader.refusal);
    return std::nullopt;
  }
  return std::move(reader.positions);
}

std::optional<Device> readDevice(std::string_view body, std::string& refusal) {
  auto json = readObject(body, refusal);
  if (!json) return std::nullopt;
  Device device;
  for (const auto& [key, field] : {std::pair{"mobileos", &device.mobileos},
                                   {"mobileid", &device.mobileid},
                                   {"phone_description", &device.phone_description},
                                   {"sensors", &device.sensors}})
    if (!takeText(*json, key, *field, refusal)) return std::nullopt;
  if (!device.mobileid.empty()) return device;
  refusal = "mobileid is empty";
  return std::nullopt;
}

const std::vector<Form>& forms() {
  static const auto* const all = new std::vector<Form>{
      {"tokens", "tokens", nullptr, {"token", "envir", "app_id", "tokenusage"}},
      {"tags/set", "tags", "set", {"name", "value", "envir", "app_id"}},
      {"tags/unset", "tags", "unset", {"name", "envir", "app_id"}},
      {"subscriptions/register", "subscriptions", "register", {"subscription", "envir", "app_id", "notification"}},
      {"subscriptions/unregister", "subscriptions", "unregister", {"subscription", "envir", "app_id"}},
  };
  return *all;
}

std::optional<std::vector<std::string>> readForm(std::string_view body, const Form& form, std::string& refusal) {
  auto json = readObject(body, refusal);
  if (!json) return std::nullopt;
  std::vector<std::string> texts(form.keys.size());
  for (std::size_t i = 0; i < texts.size(); ++i)
    if (!takeText(*json, form.keys[i], texts[i], refusal)) return std::nullopt;
  if (json->size() != texts.size())
    refusal = "more keys than the call has";
  else if (texts.front().empty())
    refusal = std::string("empty text under ") + form.keys.front();
  else
    return texts;
  return std::nullopt;
}

std::optional<std::int64_t> readNumber(const std::string& text) {
  std::int64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || rest != end || std::to_string(number) != text) return std::nullopt;
  return number;
}

std::optional<Credentials> readBasicCredentials(std::string_view header) {
  constexpr std::string_view scheme = "Basic ";
  if (!header.starts_with(scheme)) return std::nullopt;
  const auto text = decodeBase64(header.substr(scheme.size()));
  if (!text) return std::nullopt;
  const std::size_t colon = text->find(':');
  if (colon == std::string::npos) return std::nullopt;
  return Credentials{text->substr(0, colon), text->substr(colon + 1)};
}

}  // namespace tarvo::sandbox
