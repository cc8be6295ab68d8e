#include "sandbox/live/Feed.h"

#include <exception>

namespace tarvo::sandbox::live {
namespace {

constexpr std::chrono::milliseconds kPause{100};

}  // namespace

Feed::Feed(Store& store) : store_(store), thread_([this] { poll(); }) {}

Feed::~Feed() { stop(); }

std::optional<std::int64_t> Feed::waitBeyond(std::int64_t after, std::chrono::milliseconds longest) {
  std::unique_lock lock(mutex_);
  if (++waiting_ == 1) wanted_.notify_one();
  changed_.wait_for(lock, longest, [&] { return stopped_ || last_ > after; });
  --waiting_;
  if (stopped_) return std::nullopt;
  return last_;
}

void Feed::stop() {
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    changed_.notify_all();
    wanted_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
}

void Feed::poll() {
  std::unique_lock lock(mutex_);
  while (!stopped_) {
    wanted_.wait(lock, [&] { return stopped_ || waiting_ > 0; });
    lock.unlock();
    std::optional<std::int64_t> last;
    try {
      last = store_.lastEvent();
    } catch (const std::exception&) {  // another process may hold the store
    }
    lock.lock();
    if (last && *last != last_) {
      last_ = *last;
      changed_.notify_all();
    }
    wanted_.wait_for(lock, kPause, [&] { return stopped_; });
  }
}

}  // namespace tarvo::sandbox::live
