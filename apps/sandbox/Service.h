#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include "sandbox/Archive.h"
#include "sandbox/Canned.h"
#include "sandbox/Faults.h"
#include "sandbox/Logs.h"

namespace tarvo::sandbox {

/// A request as far as the backend looks at it.
struct Call {
  std::string_view method, path, authorization, contentType, body;
  const std::multimap<std::string, std::string>& query;
};

struct Reply {
  int status = 200;
  std::string body;  ///< JSON
};

/// A reply of "success" false and a reason.
Reply refuse(int status, const std::string& why);

/// What the backend answers: finds the path, lets a planned fault happen, checks who asks, and keeps or looks up.
///
/// Threads: any; the parts guard themselves. Errors: those of the archive and the log folder.
class Service {
 public:
  Service(Account account, const std::filesystem::path& archive, const std::filesystem::path& logs);

  Reply answer(const Call& call);

  Archive archive;
  LogFolder logs;
  Derived derived;
  Faults faults;

 private:
  struct Route;
  static const Route kRoutes[];

  const Route* find(const Call& call) const;

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

  const Account account_;
  const std::string base_;
};

}  // namespace tarvo::sandbox
