#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tarvo {

/// Deeper than any script or answer, and far from the end of a stack that follows it by recursion.
constexpr int kDeepestJson = 64;

/// Parses JSON that somebody has written by hand. Throws std::runtime_error where it is none, or too deep.
template <class Json = nlohmann::json>
Json parseBoundedJson(std::string_view text) {
  try {
    return Json::parse(text, [](int depth, typename Json::parse_event_t, Json&) {
      if (depth > kDeepestJson)
        throw std::runtime_error("nested deeper than " + std::to_string(kDeepestJson) + " levels");
      return true;
    });
  } catch (const typename Json::parse_error& error) {
    throw std::runtime_error("no JSON: unexpected at byte " + std::to_string(error.byte));
  } catch (const typename Json::out_of_range&) {
    throw std::runtime_error("a number out of range");
  }
}

/// All of a regular file; absent when it cannot be read. Anything else of that name could keep the reader waiting.
inline std::optional<std::string> readRegularFile(const std::filesystem::path& file) {
  std::error_code failure;
  if (!std::filesystem::is_regular_file(file, failure)) return std::nullopt;
  std::ifstream stream(file, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  if (!stream.is_open() || stream.bad()) return std::nullopt;
  return text;
}

}  // namespace tarvo
