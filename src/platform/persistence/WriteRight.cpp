#include "platform/persistence/WriteRight.h"

#include "platform/foundation/Text.h"
#include "platform/persistence/Database.h"

namespace tarvo::platform {

std::filesystem::path WriteRight::lockFileOf(const std::filesystem::path& store) { return store.native() + ".lock"; }

WriteRight::WriteRight(const std::filesystem::path& store, Patience patience)
    : store_(store), patience_(patience), lock_(lockFileOf(store)) {}

std::optional<Error> WriteRight::take(std::optional<Span> wait) {
  if (lock_.isHeld()) return std::nullopt;
  if (refusal_ && !wait && std::chrono::steady_clock::now() < nextLook_) return refusal_;
  const auto locked = lock_.lock(wait.value_or(refusal_ ? Span(0) : patience_.first));
  if (lock_.isHeld()) {
    refusal_.reset();
    return std::nullopt;
  }
  nextLook_ = std::chrono::steady_clock::now() + patience_.betweenLooks;
  refusal_ = storeError(StoreErrorCode::operation,
                        locked ? concat("The store is being written by ", lock_.holder(), ", and by one at a time")
                               : concat("The right to write cannot be had: ", locked.error().localizedDescription),
                        store_);
  return refusal_;
}

}  // namespace tarvo::platform
