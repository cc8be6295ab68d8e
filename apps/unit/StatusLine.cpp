#include "unit/StatusLine.h"

#include <cmath>
#include <cstdint>
#include <tuple>

namespace tarvo::unit {
namespace {

std::string grouped(std::int64_t number) {
  std::string text = std::to_string(number);
  for (std::size_t end = text.size(); end > 3; end -= 3) text.insert(end - 3, ",");
  return text;
}

/// In the largest unit of which there are two.
std::string ageOf(platform::Seconds age) {
  const auto seconds = static_cast<std::int64_t>(std::fmax(age.count(), 0));
  if (seconds < 120) return std::to_string(seconds) + " s";
  if (seconds < 2 * 3600) return std::to_string(seconds / 60) + " min";
  if (seconds < 2 * 86400) return std::to_string(seconds / 3600) + " h";
  return grouped(seconds / 86400) + " days";
}

}  // namespace

std::string statusLine(const std::string& receiver, const Health& health, platform::Date now) {
  const auto& [positions, delivery] = std::tie(health.positions, health.delivery);
  const std::int64_t left = positions.unsent + positions.awaiting;
  std::string line = receiver + "; " + grouped(positions.stored) +
                     (positions.stored == 1 ? " position, " : " positions, ") + grouped(left) + " unsent";
  if (positions.unsaved > 0) line += ", " + grouped(positions.unsaved) + " cannot be saved";
  if (delivery.lastAcknowledgement)
    line += "; last acknowledged " + ageOf(now - *delivery.lastAcknowledgement) + " ago";
  if (left > 0 && delivery.lastError != DeliveryError::none)
    line += "; failed " + grouped(delivery.triesSince) + " times: " + nameOf(delivery.lastError);
  return line;
}

}  // namespace tarvo::unit
