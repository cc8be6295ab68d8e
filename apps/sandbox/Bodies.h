#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvo::sandbox {

/// The keys of a position, all of them required and all with texts as values. The first is the position's running
/// number, the second the user that sends it.
inline constexpr std::array<const char*, 14> kPositionKeys = {"unique_position_id_for_app",
                                                              "useruuid",
                                                              "app_name",
                                                              "date_localisation",
                                                              "date_mobile",
                                                              "lon",
                                                              "lat",
                                                              "acc",
                                                              "speed",
                                                              "bearing",
                                                              "alt",
                                                              "provider",
                                                              "service_action",
                                                              "terramesh_data_version"};

struct Position {
  std::int64_t id = 0;
  std::array<std::string, kPositionKeys.size()> values;  ///< in the order of kPositionKeys
};

struct Device {
  std::string mobileos, mobileid, phone_description, sensors;
};

/// The positions of an upload body: a JSON array of at least one flat object, each with just the fourteen keys, a
/// canonical decimal number as its first value and `user` as its second. Absent when the body is anything else;
/// `refusal` then says what is wrong. Deeper nesting is refused as it is met, so memory is bounded by the body.
std::optional<std::vector<Position>> readPositions(std::string_view body, std::string_view user, std::string& refusal);

/// The device of a registration body: a JSON object whose four keys hold texts, with a `mobileid` that is not empty.
std::optional<Device> readDevice(std::string_view body, std::string& refusal);

struct Credentials {
  std::string name, secret;
  bool operator==(const Credentials&) const = default;
};

/// What an "Authorization: Basic ..." header holds; absent when it has another form.
std::optional<Credentials> readBasicCredentials(std::string_view header);

}  // namespace tarvo::sandbox
