#include "platform/urlsession/BackgroundSession.h"

#include <map>

#include <tarvo/platform/SystemLog.h>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

/// The sessions of this process by identifier. They are never closed.
struct Registry {
  Mutex mutex;
  std::map<std::string, std::shared_ptr<BackgroundSession>> sessions GUARDED_BY(mutex);
};

Registry& registry() {
  static Registry* registry = new Registry;
  return *registry;
}

}  // namespace

std::shared_ptr<BackgroundSession> BackgroundSession::open(const BackgroundSessionConfiguration& configuration,
                                                           BackgroundSessionDelegate& delegate) {
  std::shared_ptr<BackgroundSession> session;
  {
    MutexLock lock(registry().mutex);
    auto& slot = registry().sessions[configuration.identifier];
    if (!slot) return slot = std::shared_ptr<BackgroundSession>(new BackgroundSession(configuration, delegate));
    session = slot;
  }
  NSLog(concat("A background URLSession with identifier ", configuration.identifier, " already exists!"));
  return session;
}

std::string BackgroundSession::description() const {
  return concat("<BackgroundSession: ", configuration_.identifier, ">");
}

BackgroundSession::BackgroundSession(BackgroundSessionConfiguration configuration, BackgroundSessionDelegate& delegate)
    : configuration_(std::move(configuration)), delegate_(delegate) {}

}  // namespace tarvo::platform
