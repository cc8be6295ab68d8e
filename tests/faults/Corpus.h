#pragma once

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/platform/Value.h>

#include "faults/Driver.h"

namespace tarvo::faults {

/// What must hold for every input; else the process ends, and whoever runs it keeps the input.
inline void require(bool holds, std::string_view otherwise) {
  if (holds) return;
  std::cerr << "decoders: " << otherwise << std::endl;
  std::abort();
}

inline std::string textOf(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

using Texts = std::vector<std::string>;

/// The seeds of a target, or the words of its dictionary: those that JSON can write.
inline Texts seedsOf(const std::string& target) {
  const std::filesystem::path folder = std::filesystem::path(TARVO_FAULTS) / "corpus" / target;
  Texts seeds;
  for (const auto& file : std::set<std::filesystem::path>(std::filesystem::directory_iterator(folder), {}))
    seeds.push_back(textOf(file));
  return seeds;
}
inline Texts wordsOf(const std::string& target) {
  const std::filesystem::path own = std::filesystem::path(TARVO_FAULTS) / (target + ".dict");
  std::istringstream lines(
      textOf(std::filesystem::exists(own) ? own : std::filesystem::path(TARVO_FAULTS) / "json.dict"));
  Texts words;
  for (std::string line; std::getline(lines, line);)
    if (const auto word = platform::Value::fromJson(line); word && word->asString()) words.push_back(*word->asString());
  return words;
}

inline std::string changed(const Texts& seeds, const Texts& words, Driver& driver) {
  const auto some = [&](std::size_t most) { return static_cast<std::size_t>(driver.upTo(std::int64_t(most))); };
  std::string text = seeds[some(seeds.size() - 1)];
  for (auto changes = some(3) + 1; changes > 0; --changes) {
    const std::size_t at = some(text.size());
    const std::string& other = seeds[some(seeds.size() - 1)];
    const auto kind = some(4);
    if (kind == 0 && at < text.size()) text[at] = static_cast<char>(text[at] ^ 1 << some(7));
    if (kind == 1) text.insert(at, some(8), static_cast<char>(some(255)));
    if (kind == 2) text.erase(at, some(8));
    if (kind == 3) text.replace(at, some(8), words[some(words.size() - 1)]);
    if (kind == 4) text.replace(at, some(text.size() - at), other, some(other.size()));
  }
  return text.substr(0, std::size_t{1} << 16);
}

}  // namespace tarvo::faults
