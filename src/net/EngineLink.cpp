#include "net/EngineLink.h"

#include <atomic>

namespace tarvo {
namespace {

std::atomic<EngineLink*> installed{nullptr};

}  // namespace

EngineLink& EngineLink::current() {
  if (EngineLink* link = installed.load()) return *link;
  build();
  return *installed.load();
}

void EngineLink::install(EngineLink* link) { installed.store(link); }

}  // namespace tarvo
