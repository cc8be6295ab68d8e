#include "platform/persistence/TextRef.h"

#include <memory>
#include <unordered_map>

#include "platform/foundation/Mutex.h"

namespace tarvo::platform {
namespace {

/// Longer texts, a trip's route for instance, do not repeat and are not worth keeping.
constexpr std::size_t kLongestKept = 64;

}  // namespace

struct TextRef::Pool {
  Mutex mutex;
  /// Keys view the texts of their values.
  std::unordered_map<std::string_view, std::unique_ptr<const Text>> texts GUARDED_BY(mutex);

  static Pool& shared() {
    static auto* pool = new Pool;
    return *pool;
  }
};

TextRef::TextRef(std::string_view text) {
  Pool& pool = Pool::shared();
  MutexLock lock(pool.mutex);
  auto found = pool.texts.find(text);
  if (found == pool.texts.end()) {
    auto made = std::make_unique<const Text>(text);
    const std::string_view key = made->characters;
    found = pool.texts.emplace(key, std::move(made)).first;
  }
  text_ = found->second.get();
  text_->references.fetch_add(1, std::memory_order_relaxed);
}

void TextRef::release() {
  // The last reference goes only under the lock, so that nobody can find a text that is being freed.
  std::uint32_t references = text_->references.load(std::memory_order_relaxed);
  while (references > 1) {
    if (text_->references.compare_exchange_weak(references, references - 1, std::memory_order_release,
                                                std::memory_order_relaxed))
      return;
  }
  Pool& pool = Pool::shared();
  MutexLock lock(pool.mutex);
  if (text_->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
    pool.texts.erase(pool.texts.find(text_->characters));
}

std::size_t TextRef::poolSize() {
  Pool& pool = Pool::shared();
  MutexLock lock(pool.mutex);
  return pool.texts.size();
}

TextRef LatestTexts::get(std::size_t attribute, std::string_view text) {
  if (text.size() > kLongestKept) return TextRef(text);
  TextRef& latest = texts_[attribute];
  if (!latest || latest.view() != text) latest = TextRef(text);
  return latest;
}

}  // namespace tarvo::platform
