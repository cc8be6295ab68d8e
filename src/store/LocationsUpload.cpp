#include <array>

#include "log/Log.h"
#include "platform/foundation/FatalError.h"
#include "platform/foundation/Json.h"
#include "platform/foundation/Text.h"
#include "settings/Names.h"
#include "store/Attributes.h"
#include "store/Locations.h"

namespace tarvo {

namespace at = attribute::locations;
using platform::append;

namespace {

/// Every record that was filled has these; one that has not must not reach an upload.
template <class T>
void appendMandatory(std::string& out, const std::optional<T>& value, std::string_view attribute) {
  if (!value) platform::fatalError(platform::concat("a position to be sent has no ", attribute));
  append(out, *value);
}

/// An absent reading leaves its text empty.
void appendReading(std::string& out, std::optional<double> value) {
  if (value) append(out, *value);
}

/// One member of a position's object: what stands before the value's text (the end of the member before included),
/// and the value.
struct Member {
  std::string_view opening;
  void (*appendValue)(std::string& out, const Locations& location, std::string_view uuid);

  constexpr std::string_view key() const {
    const std::string_view upToKey = opening.substr(0, opening.size() - 3);
    return upToKey.substr(upToKey.rfind('"') + 1);
  }
};

using Text = std::string;
using Row = const Locations&;
using User = std::string_view;

// The order is the wire's.
constexpr std::array<Member, 14> kMembers{{
    {R"({"unique_position_id_for_app":")",
     [](Text& out, Row row, User) { appendMandatory(out, row.integer(at::index), "index"); }},
    {R"(","useruuid":")", [](Text& out, Row, User uuid) { append(out, uuid); }},
    {R"(","app_name":")", [](Text& out, Row row, User) { appendMandatory(out, row.string(at::appName), "appName"); }},
    {R"(","date_localisation":")",
     [](Text& out, Row row, User) { appendMandatory(out, row.date(at::locationTimestamp), "locationTimestamp"); }},
    {R"(","date_mobile":")",
     [](Text& out, Row row, User) { appendMandatory(out, row.date(at::eventTimestamp), "eventTimestamp"); }},
    {R"(","lon":")", [](Text& out, Row row, User) { appendMandatory(out, row.number(at::longitude), "longitude"); }},
    {R"(","lat":")", [](Text& out, Row row, User) { appendMandatory(out, row.number(at::latitude), "latitude"); }},
    {R"(","acc":")", [](Text& out, Row row, User) { appendReading(out, row.number(at::horizontalAccuracy)); }},
    {R"(","speed":")", [](Text& out, Row row, User) { appendReading(out, row.number(at::speed)); }},
    {R"(","bearing":")", [](Text& out, Row row, User) { appendReading(out, row.number(at::course)); }},
    {R"(","alt":")", [](Text& out, Row row, User) { appendReading(out, row.number(at::altitude)); }},
    {R"(","provider":")",
     [](Text& out, Row row, User) { appendMandatory(out, row.string(at::localisationMethod), "localisationMethod"); }},
    {R"(","service_action":")",
     [](Text& out, Row row, User) { appendMandatory(out, row.string(at::serviceAction), "serviceAction"); }},
    {R"(","terramesh_data_version":")", [](Text& out, Row, User) { append(out, names::kTerrameshDataVersion); }},
}};
constexpr std::string_view kClosing = R"("})";

// A typical object with its user identifier.
constexpr std::size_t kTypicalBytes = 420;

}  // namespace

std::string Locations::convertToString(const List& locations, std::string_view uuid) {
  if (locations.empty()) platform::fatalError("an upload needs at least one position");
  Log::debug("Locations:convertToJSON [loc] from:", locations.front()->index(), " to:", locations.back()->index(),
             " mainThread:", mainThread());
  std::string out;
  out.reserve(locations.size() * kTypicalBytes);
  char separator = '[';
  for (const auto& location : locations) {
    out.push_back(separator);
    separator = ',';
    for (const Member& member : kMembers) {
      out.append(member.opening);
      member.appendValue(out, *location, uuid);
    }
    out.append(kClosing);
  }
  out.push_back(']');
  return out;
}

std::optional<std::string> Locations::convertLocationsToJSON(const Locations& location, std::string_view uuid) {
  platform::Dictionary members;
  for (const Member& member : kMembers) {
    std::string value;
    member.appendValue(value, location, uuid);
    members.emplace(member.key(), std::move(value));
  }
  const platform::Value object(std::move(members));
  if (!platform::isValidJsonObject(object)) return std::nullopt;
  auto text = platform::serializeJson(object);
  if (!text) {
    Log::error("Locations:convertLocationsToJSON Unresolved error ", platform::errorAndUserInfo(text.error()));
    return std::nullopt;
  }
  Log::debug("Locations:convertLocationsToJSON [loc] loc:", location.index(), " mainThread:", mainThread());
  return std::move(*text);
}

}  // namespace tarvo
