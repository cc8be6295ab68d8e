#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/persistence/NSManagedObjectContext.h"

namespace tarvo {

/// The identity that the backend gave this device; at most one is expected, none is enforced.
///
/// Threads: everything only inside a block of the given context. No operation saves or throws.
class Users : public platform::NSManagedObject {
 public:
  static constexpr std::string_view kEntity = "Users";
  using List = std::vector<std::shared_ptr<Users>>;
  using Context = platform::NSManagedObjectContext;

  using NSManagedObject::NSManagedObject;

  static void addUser(std::string_view uuid, std::string_view timestamp, Context& context);
  static List getUsers(Context& context);
  /// Of the first record that the fetch gives.
  static std::optional<std::string> getUserUUID(Context& context);
  /// The device description for a record with an identifier.
  static std::optional<std::string> convertUsersToJSON(const Users& user);

  std::optional<std::string> uuid() const;
  std::optional<std::string> timestamp() const;
};

}  // namespace tarvo
