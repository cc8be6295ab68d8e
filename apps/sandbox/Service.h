#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sandbox/Canned.h"
#include "sandbox/Faults.h"
#include "sandbox/store/Store.h"

namespace tarvo::sandbox {

/// A request as far as the backend looks at it.
struct Call {
  std::string_view method, path, authorization, contentType, body;
  const std::multimap<std::string, std::string>& query;
};

struct Reply {
  /// How it goes out: dropped, the connection closes without an answer; half, it closes in the middle of the body;
  /// dripping, the body comes byte by byte and takes `seconds`.
  enum class Manner { whole, drop, half, drip };

  int status = 200;
  std::string body;   ///< JSON
  std::string user;   ///< who asked; empty for a device that registers, and for strangers
  std::string fault;  ///< the kind of the fault that happened; empty without
  std::vector<std::pair<std::string, std::string>> headers = {};
  bool spoilt = false;  ///< by the fault: it is not what the backend would say
  Manner manner = Manner::whole;
  double seconds = 0;
};

/// A reply of "success" false and a reason.
Reply refuse(int status, const std::string& why);

/// What the backend answers: finds the path, checks who asks, and keeps or looks up, unless a fault happens to it.
/// Trips, places and predictions are what is derived from the positions of the user, unless canned data were given;
/// those are the same for everybody.
///
/// Threads: any; the parts guard themselves. Errors: those of the store.
class Service {
 public:
  Service(Account account, std::unique_ptr<Store> store);

  Reply answer(const Call& call);
  /// Whether this is a path behind the client id, "tags/set".
  static bool isEndpoint(std::string_view path);

  /// What units are answered: JSON texts.
  std::string pastTrips(const std::string& user, std::int64_t first, std::int64_t last);
  std::string places(const std::string& user);
  std::string prediction(const std::string& user);
  bool isAccount(std::string_view authorization) const;

  const Account account;
  const std::unique_ptr<Store> store;
  Derived canned;
  Faults faults;

 private:
  struct Route;
  static const Route kRoutes[];

  const Route* find(const Call& call) const;
  Reply handle(const Call& call, const Route& route);
  std::string derivedText(const std::string& user, const std::function<std::string(derive::Records&)>& read);

  Reply users(const Call& call, const std::string& user);
  Reply positions(const Call& call, const std::string& user);
  Reply uplog(const Call& call, const std::string& user);
  Reply form(const Call& call, const std::string& user);
  Reply userconf(const Call& call, const std::string& user);
  Reply predictions(const Call& call, const std::string& user);
  Reply pasttrips(const Call& call, const std::string& user);
  Reply pois(const Call& call, const std::string& user);
  Reply resetbackend(const Call& call, const std::string& user);
  Reply resetgeoprofile(const Call& call, const std::string& user);

  const std::string base_;
};

}  // namespace tarvo::sandbox
