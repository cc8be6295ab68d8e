#include <concepts>

#include "log/Log.h"
#include "platform/foundation/FatalError.h"
#include "platform/foundation/Json.h"
#include "platform/foundation/Text.h"
#include "settings/Names.h"
#include "store/Attributes.h"
#include "store/Locations.h"

namespace tarvo {

namespace at = attribute::locations;

namespace {

/// The attribute, which every position has once it is filled; one without it must not reach an upload.
template <auto read>
auto needed(const Locations& position, at::Position attribute) {
  const auto value = (position.*read)(attribute);
  if (!value) platform::fatalError(platform::concat("a position to be sent has no ", at::kAll[attribute].name));
  return *value;
}

/// The members of a position's object in the order of the wire. `visit(opening, value)` gets what stands before the
/// value's text, the end of the member before included, and the value; an absent reading leaves its text empty.
template <class Visit>
void visitMembers(const Locations& position, std::string_view uuid, const Visit& visit) {
  visit(R"({"unique_position_id_for_app":")", needed<&Locations::integer>(position, at::index));
  visit(R"(","useruuid":")", uuid);
  visit(R"(","app_name":")", needed<&Locations::string>(position, at::appName));
  visit(R"(","date_localisation":")", needed<&Locations::date>(position, at::locationTimestamp));
  visit(R"(","date_mobile":")", needed<&Locations::date>(position, at::eventTimestamp));
  visit(R"(","lon":")", needed<&Locations::number>(position, at::longitude));
  visit(R"(","lat":")", needed<&Locations::number>(position, at::latitude));
  visit(R"(","acc":")", position.number(at::horizontalAccuracy));
  visit(R"(","speed":")", position.number(at::speed));
  visit(R"(","bearing":")", position.number(at::course));
  visit(R"(","alt":")", position.number(at::altitude));
  visit(R"(","provider":")", needed<&Locations::string>(position, at::localisationMethod));
  visit(R"(","service_action":")", needed<&Locations::string>(position, at::serviceAction));
  visit(R"(","terramesh_data_version":")", names::kTerrameshDataVersion);
}
constexpr std::string_view kClosing = R"("})";

/// The key in what opens a member.
std::string_view keyIn(std::string_view opening) {
  const std::string_view upToKey = opening.substr(0, opening.size() - std::string_view(R"(":")").size());
  return upToKey.substr(upToKey.rfind('"') + 1);
}

// A typical object with its user identifier.
constexpr std::size_t kTypicalBytes = 420;

}  // namespace

std::string Locations::convertToString(const List& positions, std::string_view uuid) {
  if (positions.empty()) platform::fatalError("an upload needs at least one position");
  Log::debug("Locations:convertToJSON [loc] from:", positions.front()->index(), " to:", positions.back()->index(),
             " mainThread:", mainThread());
  platform::TextBuilder text(positions.size() * kTypicalBytes);
  std::string_view separator = "[";
  for (const auto& position : positions) {
    text.append(separator);
    separator = ",";
    visitMembers(*position, uuid, [&text]<class T>(std::string_view opening, const T& value) {
      text.append(opening);
      if constexpr (std::same_as<T, std::optional<double>>) {
        if (value) text.append(*value);
      } else {
        text.append(value);
      }
    });
    text.append(kClosing);
  }
  text.append("]");
  return text.finished();
}

std::optional<std::string> Locations::convertLocationsToJSON(const Locations& position, std::string_view uuid) {
  platform::Dictionary members;
  visitMembers(position, uuid, [&members]<class T>(std::string_view opening, const T& value) {
    if constexpr (std::same_as<T, std::optional<double>>)
      members.emplace(keyIn(opening), value ? platform::concat(*value) : "");
    else
      members.emplace(keyIn(opening), platform::concat(value));
  });
  const platform::Value object(std::move(members));
  if (!platform::isValidJsonObject(object)) return std::nullopt;
  auto text = platform::serializeJson(object);
  if (!text) {
    Log::error("Locations:convertLocationsToJSON Unresolved error ", platform::errorAndUserInfo(text.error()));
    return std::nullopt;
  }
  Log::debug("Locations:convertLocationsToJSON [loc] loc:", position.index(), " mainThread:", mainThread());
  return std::move(*text);
}

}  // namespace tarvo
