#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "store/Entity.h"

namespace tarvo {

/// The identity that the backend gave this device; at most one is expected, none is enforced.
///
/// Threads and errors: see Entity.
class Users : public Entity<Users> {
 public:
  static constexpr std::string_view kEntity = "Users";
  using Entity::Entity;

  static void addUser(std::string_view uuid, std::string_view timestamp, Context& context);
  static List getUsers(Context& context);
  /// Of the first record that the fetch gives.
  static std::optional<std::string> getUserUUID(Context& context);
  /// The device's description for a record with an identifier. Counted by the design; no part of the SDK calls it.
  static std::optional<std::string> convertUsersToJSON(const Users& user);

  std::optional<std::string> uuid() const;
  std::optional<std::string> timestamp() const;
};

}  // namespace tarvo
