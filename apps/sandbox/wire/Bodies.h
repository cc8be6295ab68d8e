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

/// A call that is kept as it came: its path, the archive's table, what stands there under `call` (none: no such
/// column), and the keys of its body, which are columns too.
struct Form {
  const char* path;
  const char* table;
  const char* call;
  std::vector<const char*> keys;
};

/// Of the calls for the push token, tags and subscriptions.
const std::vector<Form>& forms();

/// The texts of a call's body in the order of the form's keys: a JSON object with just these keys and texts under
/// them, the first not empty. Absent when the body is anything else.
std::optional<std::vector<std::string>> readForm(std::string_view body, const Form& form, std::string& refusal);

/// A decimal number that is written as to_string would; absent otherwise.
std::optional<std::int64_t> readNumber(const std::string& text);

/// The one customer that the backend serves.
struct Account {
  std::string clientID, apiKey, apiSecret;
};

struct Credentials {
  std::string name, secret;
  bool operator==(const Credentials&) const = default;
};

/// What an "Authorization: Basic ..." header holds; absent when it has another form.
std::optional<Credentials> readBasicCredentials(std::string_view header);

}  // namespace tarvo::sandbox
