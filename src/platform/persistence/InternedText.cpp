#include "platform/persistence/InternedText.h"

#include <memory>
#include <unordered_map>

#include "platform/foundation/Mutex.h"

namespace tarvo::platform {
namespace {

/// Longer texts, a trip's route for instance, do not repeat and are not worth keeping.
constexpr std::size_t kLongestKept = 64;

}  // namespace

struct InternedTextPool {
  Mutex mutex;
  /// Keys view the texts of their values.
  std::unordered_map<std::string_view, std::unique_ptr<const InternedText>> texts GUARDED_BY(mutex);

  static InternedTextPool& shared() {
    static auto* pool = new InternedTextPool;
    return *pool;
  }

  static std::unique_ptr<const InternedText> make(std::string_view text) {
    return std::unique_ptr<const InternedText>(new InternedText(text));
  }
};

const InternedText* InternedText::acquire(std::string_view text) {
  InternedTextPool& pool = InternedTextPool::shared();
  MutexLock lock(pool.mutex);
  auto found = pool.texts.find(text);
  if (found != pool.texts.end()) return retain(found->second.get());
  auto made = InternedTextPool::make(text);
  const InternedText* result = made.get();
  pool.texts.emplace(result->view(), std::move(made));
  return result;
}

void InternedText::release(const InternedText* text) {
  // The last reference goes only under the lock, so `acquire` can never find a text that is being freed.
  std::uint32_t references = text->references_.load(std::memory_order_relaxed);
  while (references > 1) {
    if (text->references_.compare_exchange_weak(references, references - 1, std::memory_order_release,
                                                std::memory_order_relaxed))
      return;
  }
  InternedTextPool& pool = InternedTextPool::shared();
  MutexLock lock(pool.mutex);
  if (text->references_.fetch_sub(1, std::memory_order_acq_rel) == 1) pool.texts.erase(pool.texts.find(text->view()));
}

LatestTexts::~LatestTexts() {
  for (const InternedText* text : texts_)
    if (text) InternedText::release(text);
}

const InternedText* LatestTexts::acquire(std::size_t attribute, std::string_view text) {
  if (text.size() > kLongestKept) return InternedText::acquire(text);
  const InternedText*& latest = texts_[attribute];
  if (!latest || latest->view() != text) {
    if (latest) InternedText::release(latest);
    latest = InternedText::acquire(text);
  }
  return InternedText::retain(latest);
}

std::size_t InternedText::poolSize() {
  InternedTextPool& pool = InternedTextPool::shared();
  MutexLock lock(pool.mutex);
  return pool.texts.size();
}

}  // namespace tarvo::platform
