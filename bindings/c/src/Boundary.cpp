#include "Boundary.h"

#include <pthread.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <new>

namespace tarvo::c {
namespace {

std::atomic<bool> forked{false};
thread_local int callbacks = 0;
thread_local int logLines = 0;

}  // namespace

bool isForked() { return forked.load(std::memory_order_relaxed); }

void watchForks() {
  [[maybe_unused]] static const int watched = ::pthread_atfork(nullptr, nullptr, [] { forked = true; });
}

InsideCallback::InsideCallback(Kind kind) : kind_(kind) { ++(kind_ == Kind::log ? logLines : callbacks); }
InsideCallback::~InsideCallback() { --(kind_ == Kind::log ? logLines : callbacks); }
bool InsideCallback::any() { return callbacks > 0; }
bool InsideCallback::log() { return logLines > 0; }

tarvo_result run(tarvo_result (*call)(void* body), void* body) noexcept {
  if (isForked()) return TARVO_FORKED;
  if (InsideCallback::log()) return TARVO_IN_CALLBACK;
  try {
    return call(body);
  } catch (const Refusal& refusal) {
    return refusal.result;
  } catch (const std::bad_alloc&) {
    return TARVO_NO_MEMORY;
  } catch (...) {
    return TARVO_INTERNAL;
  }
}

void outsideCallbacks() {
  if (InsideCallback::any()) throw Refusal{TARVO_IN_CALLBACK};
}

std::string text(const char* text) {
  std::string bytes = required(text);
  if (!platform::Value(bytes).toJson()) throw Refusal{TARVO_BAD_ARGUMENT};
  return bytes;
}

std::string path(const char* path) {
  if (*required(path) == '\0') throw Refusal{TARVO_BAD_ARGUMENT};
  return path;
}

double finiteNumber(double number) {
  if (!std::isfinite(number)) throw Refusal{TARVO_BAD_ARGUMENT};
  return number;
}

double span(double seconds) {
  if (finiteNumber(seconds) < 0) throw Refusal{TARVO_BAD_ARGUMENT};
  return seconds;
}

std::optional<platform::Date> bound(double date) {
  if (std::isnan(date)) return std::nullopt;
  const auto moment = platform::dateSince1970(finiteNumber(date));
  return std::clamp(moment, platform::distantPast(), platform::distantFuture());
}

platform::Value json(const char* text) {
  auto value = platform::Value::fromJson(required(text));
  if (!value) throw Refusal{TARVO_BAD_JSON};
  return *std::move(value);
}

platform::Dictionary jsonObject(const char* text) {
  platform::Value value = json(text);
  if (value.asDictionary() == nullptr) throw Refusal{TARVO_BAD_JSON};
  return std::move(*value.asDictionary());
}

char* given(std::string_view text) {
  auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy == nullptr) throw std::bad_alloc();
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  return copy;
}

}  // namespace tarvo::c
