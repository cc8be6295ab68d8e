#include "net/EngineLink.h"

#include <atomic>

#include "platform/foundation/FatalError.h"

namespace tarvo {
namespace {

std::atomic<EngineLink*> installed{nullptr};

}  // namespace

EngineLink& EngineLink::current() {
  EngineLink* link = installed.load();
  if (link == nullptr) platform::fatalError("the backend client has no engine yet");
  return *link;
}

void EngineLink::install(EngineLink* link) { installed.store(link); }

}  // namespace tarvo
