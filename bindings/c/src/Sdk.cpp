// The handle of the SDK, what is set before it, modes, callbacks, and the waits.

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <string>
#include <utility>

#include <tarvo/LocationManager.h>
#include <tarvo/Version.h>
#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/MainQueue.h>
#include <tarvo/platform/SystemLog.h>
#include <tarvo/platform/TransferOptions.h>

#include "Objects.h"

using namespace tarvo;     // NOLINT(google-build-using-namespace): this file is the C side of it
using namespace tarvo::c;  // NOLINT(google-build-using-namespace)

namespace {

static_assert(TARVO_DEACTIVATED == mode::kDeactivated && TARVO_LOCAL_FOREGROUND == mode::kLocalForeground);
static_assert(TARVO_LOCAL_BACKGROUND == mode::kLocalBackground);
static_assert(TARVO_BACKEND_BACKGROUND == mode::kBackendBackground);
static_assert(TARVO_BACKEND_GEOPROFILE == mode::kBackendGeoprofile);
static_assert(TARVO_FLUSH_DELIVERED == static_cast<int>(FlushResult::delivered));
static_assert(TARVO_FLUSH_TIME_IS_UP == static_cast<int>(FlushResult::timeIsUp));
static_assert(TARVO_FLUSH_MODE_FORBIDS == static_cast<int>(FlushResult::modeForbids));
static_assert(TARVO_FLUSH_NOT_REGISTERED == static_cast<int>(FlushResult::notRegistered));
static_assert(TARVO_FLUSH_BYTES_USED_UP == static_cast<int>(FlushResult::bytesUsedUp));
static_assert(TARVO_FLUSH_SESSION_FAILED == static_cast<int>(FlushResult::sessionFailed));
static_assert(TARVO_FLUSH_STORE_UNAVAILABLE == static_cast<int>(FlushResult::storeUnavailable));

/// The process's SDK: one at a time.
std::atomic<bool> exists{false}, existed{false};

/// The clock that the host moves, if it wanted one.
struct HostClock {
  std::mutex mutex;
  std::shared_ptr<platform::ManualClock> clock;
  static HostClock& shared() {
    static auto* const clock = new HostClock;
    return *clock;
  }
};

tarvo_result inTime(bool isSet) { return isSet ? TARVO_OK : TARVO_TOO_LATE; }
std::string orNothing(const char* bytes) { return bytes == nullptr ? "" : bytes; }

struct LogSink : Held {
  LogSink(tarvo_log_line function, void* of, void (*released)(void*)) : Held(of, released, Kind::log), line(function) {}
  const tarvo_log_line line;
};

/// A function of the facade that takes nothing and gives nothing.
tarvo_result does(tarvo_sdk* sdk, void (Tarvo::*operation)()) {
  return bounded([&] {
    (at(sdk)->tarvo.*operation)();
    return TARVO_OK;
  });
}

}  // namespace

extern "C" {

const char* tarvo_result_text(tarvo_result result) {
  switch (result) {
    case TARVO_OK:
      return "done";
    case TARVO_ABSENT:
      return "there is none";
    case TARVO_UNFINISHED:
      return "something is left";
    case TARVO_BAD_ARGUMENT:
      return "an argument cannot be taken";
    case TARVO_BAD_HANDLE:
      return "a handle that is not in use";
    case TARVO_BAD_JSON:
      return "no JSON, or not of the shape that is asked for";
    case TARVO_ALREADY:
      return "the process has that already";
    case TARVO_TOO_LATE:
      return "too late to set this";
    case TARVO_TOO_EARLY:
      return "no fix has come yet";
    case TARVO_IN_CALLBACK:
      return "not from inside a callback";
    case TARVO_WRONG_THREAD:
      return "only on the main thread";
    case TARVO_FORKED:
      return "not in a forked child";
    case TARVO_REFUSED:
      return "refused; the log says why";
    case TARVO_NO_MEMORY:
      return "out of memory";
    case TARVO_INTERNAL:
      return "a fault of the SDK";
  }
  return "no result of this version";
}

const char* tarvo_version(void) { return tarvo::version(); }
void tarvo_free(char* text) { std::free(text); }
size_t tarvo_live_objects(void) { return isForked() ? 0 : Handles::shared().count() + Held::count(); }

tarvo_result tarvo_set_home(const char* directory) {
  return bounded([&] { return inTime(platform::setHomeDirectory(path(directory))); });
}

tarvo_result tarvo_set_info(const char* json) {
  return bounded([&] { return inTime(platform::setInfoDictionary(jsonObject(json))); });
}

tarvo_result tarvo_set_info_file(const char* file) {
  return bounded([&] { return inTime(platform::setInfoPropertyList(path(file))); });
}

tarvo_result tarvo_set_document_directories(const char* const* directories, size_t count) {
  return bounded([&] {
    std::vector<std::filesystem::path> all;
    for (size_t i = 0; i < count; ++i) all.emplace_back(path(required(directories)[i]));
    if (all.empty()) return TARVO_BAD_ARGUMENT;
    platform::setDocumentDirectories(std::move(all));
    return TARVO_OK;
  });
}

tarvo_result tarvo_set_server(const char* url, int allow_plain_http) {
  return bounded([&] {
    if (LocationManager::setRemoteWebServerURL(text(url), allow_plain_http != 0)) return TARVO_OK;
    return existed ? TARVO_TOO_LATE : TARVO_REFUSED;
  });
}

tarvo_result tarvo_set_transfer_options(const tarvo_transfer_options* options) {
  return bounded([&] {
    const auto given = read(options, tarvo_transfer_options{});
    return inTime(platform::setTransferOptions({.proxy = orNothing(given.proxy),
                                                .caFile = orNothing(given.ca_file),
                                                .clientCertificateFile = orNothing(given.client_certificate_file),
                                                .clientKeyFile = orNothing(given.client_key_file),
                                                .clientKeyPassphrase = orNothing(given.client_key_passphrase),
                                                .networkInterface = orNothing(given.network_interface)}));
  });
}

tarvo_result tarvo_set_log(tarvo_log_line line, void* user, void (*released)(void* user)) {
  return bounded([&] {
    if (line == nullptr) {
      platform::setSystemLogSink({});
      return TARVO_OK;
    }
    const auto sink = std::make_shared<LogSink>(line, user, released);
    platform::SystemLogSink write = [sink](std::string_view message) {
      const InsideCallback inside(InsideCallback::Kind::log);
      const std::string ended(message);
      sink->line(sink->user, ended.c_str(), ended.size());
    };
    sink->accept();
    platform::setSystemLogSink(std::move(write));
    return TARVO_OK;
  });
}

tarvo_result tarvo_set_manual_clock(double start) {
  return bounded([&] {
    const auto date = bound(finiteNumber(start));
    auto& [mutex, clock] = HostClock::shared();
    const std::lock_guard lock(mutex);
    if (clock) return TARVO_ALREADY;
    if (existed) return TARVO_TOO_LATE;
    clock = std::make_shared<platform::ManualClock>(*date);
    platform::Clock::install(clock);
    return TARVO_OK;
  });
}

tarvo_result tarvo_move_clock(double date) {
  return bounded([&] {
    const auto to = bound(finiteNumber(date));
    std::shared_ptr<platform::ManualClock> clock;
    {
      const std::lock_guard lock(HostClock::shared().mutex);
      clock = HostClock::shared().clock;
    }
    if (!clock) return TARVO_ABSENT;
    clock->advanceTo(*to);
    return TARVO_OK;
  });
}

double tarvo_now(void) {
  double now = std::nan("");
  bounded([&] {
    now = platform::secondsSince1970(platform::Clock::current()->now());
    return TARVO_OK;
  });
  return now;
}

tarvo_result tarvo_sdk_new(tarvo_sdk** out) {
  return bounded([&] {
    required(out);
    if (exists.exchange(true)) return TARVO_ALREADY;
    try {
      watchForks();
      existed = true;
      auto sdk = std::make_shared<Sdk>();
      DeliveryOptions options = Tarvo::deliveryOptions();
      options.dropsProtocolBreaks = true;
      Tarvo::setDeliveryOptions(options);
      *out = handleTo<tarvo_sdk>(std::move(sdk));
    } catch (...) {
      exists = false;
      throw;
    }
    return TARVO_OK;
  });
}

void tarvo_sdk_free(tarvo_sdk* sdk) {
  bounded([&] {
    const auto object = at(sdk);
    if (!Handles::shared().remove(numberOf(sdk))) return TARVO_BAD_HANDLE;  // two threads give it back at once
    const auto dropped = object->host.clear(object->tarvo);
    exists = false;
    return TARVO_OK;
  });
}

tarvo_result tarvo_set_callbacks(tarvo_sdk* sdk, const tarvo_callbacks* callbacks) {
  return bounded([&] {
    const auto object = at(sdk);
    tarvo_callbacks functions{};
    if (callbacks != nullptr) functions = read(callbacks, functions);
    const auto before =
        object->host.set(object->tarvo, callbacks == nullptr ? nullptr : std::make_shared<Table>(functions));
    return TARVO_OK;
  });
}

tarvo_result tarvo_activate(tarvo_sdk* sdk, int64_t mode) {
  return bounded([&] {
    at(sdk)->tarvo.activate(mode);
    return TARVO_OK;
  });
}

int64_t tarvo_active_mode(void) {
  int64_t mode = TARVO_DEACTIVATED;
  bounded([&] {
    mode = Tarvo::ACTIVATE_STATUS();
    return TARVO_OK;
  });
  return mode;
}

tarvo_result tarvo_set_active_mode(tarvo_sdk* sdk, int64_t mode) {
  return bounded([&] {
    at(sdk);
    Tarvo::setACTIVATE_STATUS(mode);
    return TARVO_OK;
  });
}

tarvo_result tarvo_service_connect(tarvo_sdk* sdk) { return does(sdk, &Tarvo::serviceConnect); }
tarvo_result tarvo_request_location_update(tarvo_sdk* sdk) { return does(sdk, &Tarvo::requestLocationUpdate); }
tarvo_result tarvo_stop_location_update(tarvo_sdk* sdk) { return does(sdk, &Tarvo::stopLocationUpdate); }
tarvo_result tarvo_request_route_match(tarvo_sdk* sdk) { return does(sdk, &Tarvo::requestRouteMatch); }
tarvo_result tarvo_stop_route_match(tarvo_sdk* sdk) { return does(sdk, &Tarvo::stopRouteMatch); }
tarvo_result tarvo_request_prediction_update(tarvo_sdk* sdk) { return does(sdk, &Tarvo::requestPredictionUpdate); }
tarvo_result tarvo_stop_prediction_update(tarvo_sdk* sdk) { return does(sdk, &Tarvo::stopPredictionUpdate); }
tarvo_result tarvo_reset_local_history(tarvo_sdk* sdk) { return does(sdk, &Tarvo::resetLocalHistory); }
tarvo_result tarvo_reset_backend_history(tarvo_sdk* sdk) { return does(sdk, &Tarvo::resetBackendHistory); }
tarvo_result tarvo_reset_geo_profile_history(tarvo_sdk* sdk) { return does(sdk, &Tarvo::resetGeoProfileHistory); }

tarvo_result tarvo_claim_store(tarvo_sdk* sdk, double seconds, char** why) {
  return bounded([&] {
    const auto refusal = at(sdk)->tarvo.locationManager().claimStore(span(seconds));
    if (!refusal) return TARVO_OK;
    if (why != nullptr) *why = given(*refusal);
    return TARVO_REFUSED;
  });
}

tarvo_result tarvo_erase_everything(tarvo_sdk* sdk) {
  return bounded([&] {
    const auto object = at(sdk);
    outsideCallbacks();
    return object->tarvo.eraseEverything() ? TARVO_OK : TARVO_UNFINISHED;
  });
}

int tarvo_main_fd(void) {
  int descriptor = -1;
  bounded([&] {
    descriptor = platform::MainQueue::main().fileDescriptor();
    return TARVO_OK;
  });
  return descriptor;
}

tarvo_result tarvo_main_run_pending(size_t* count) {
  return bounded([&] {
    if (!platform::isMainThread()) return TARVO_WRONG_THREAD;
    const size_t run = platform::MainQueue::main().runPending();
    if (count != nullptr) *count = run;
    return TARVO_OK;
  });
}

tarvo_result tarvo_wait_until_idle(tarvo_sdk* sdk, double seconds) {
  return bounded([&] {
    at(sdk);
    outsideCallbacks();
    return Tarvo::waitUntilIdle(span(seconds)) ? TARVO_OK : TARVO_UNFINISHED;
  });
}

tarvo_result tarvo_flush(tarvo_sdk* sdk, double seconds, tarvo_flush_result* out) {
  return bounded([&] {
    at(sdk);
    outsideCallbacks();
    const auto result = Tarvo::flush(span(seconds));
    if (out != nullptr) *out = static_cast<tarvo_flush_result>(result);
    return result == FlushResult::delivered ? TARVO_OK : TARVO_UNFINISHED;
  });
}

tarvo_result tarvo_probe(tarvo_sdk* sdk, void (*answered)(void* user), void* user, void (*released)(void* user)) {
  return bounded([&] {
    const auto object = at(sdk);
    if (answered == nullptr) return TARVO_BAD_ARGUMENT;
    Tarvo::probe(object->host.once(std::make_shared<Once>(answered, user, released)));
    return TARVO_OK;
  });
}

}  // extern "C"
