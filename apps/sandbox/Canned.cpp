#include "sandbox/Canned.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "sandbox/BoundedJson.h"

namespace tarvo::sandbox {
namespace {

using Json = nlohmann::ordered_json;

std::string objectText(const Json& json, const std::string& key) {
  if (!json.is_object()) throw std::runtime_error(key + ": expected an object");
  return json.dump();
}

std::vector<std::string> objectTexts(const Json& json, const std::string& key) {
  if (!json.is_array()) throw std::runtime_error(key + ": expected an array");
  std::vector<std::string> texts;
  for (const Json& element : json) texts.push_back(objectText(element, key + "[" + std::to_string(texts.size()) + "]"));
  return texts;
}

std::int64_t wholeNumber(const Json& json, const std::string& key) {
  if (!json.is_number_integer() || (json.is_number_unsigned() && json.get<std::uint64_t>() > INT64_MAX))
    throw std::runtime_error(key + ": expected a whole number");
  return json.get<std::int64_t>();
}

}  // namespace

Canned parseCanned(std::string_view text) {
  const Json json = parseBoundedJson<Json>(text);
  if (!json.is_object()) throw std::runtime_error("expected a JSON object");
  Canned canned;
  for (const auto& [key, value] : json.items()) {
    if (key == "prediction")
      canned.prediction = objectText(value, key);
    else if (key == "trips")
      canned.trips = objectTexts(value, key);
    else if (key == "pois")
      canned.pois = objectTexts(value, key);
    else if (key == "poi_version")
      canned.poiVersion = wholeNumber(value, key);
    else if (key == "log_level")
      canned.logLevel = wholeNumber(value, key);
    else
      throw std::runtime_error("unknown key " + key);
  }
  return canned;
}

Canned readCanned(const std::filesystem::path& file) {
  const auto text = readRegularFile(file);
  if (!text) throw std::runtime_error(file.string() + ": cannot be read");
  try {
    return parseCanned(*text);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(file.string() + ": " + error.what());
  }
}

}  // namespace tarvo::sandbox
