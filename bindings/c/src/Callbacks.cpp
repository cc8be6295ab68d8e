#include "Callbacks.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>

#include <tarvo/platform/Device.h>
#include <tarvo/platform/LocationService.h>

#include "Objects.h"

namespace tarvo::c {
namespace {

using platform::LocationService;

static_assert(TARVO_ASK_WHEN_IN_USE == static_cast<int>(platform::AuthorizationRequest::whenInUse));
static_assert(TARVO_ASK_ALWAYS == static_cast<int>(platform::AuthorizationRequest::always));

std::atomic<std::size_t> held{0};

/// Only the host that was set last is called: what one sets and what one takes away must not interleave.
std::mutex& hosts() {
  static auto* const mutex = new std::mutex;
  return *mutex;
}

/// Calls a function of the table, if both are still there.
template <class Function, class... Arguments>
auto call(const std::weak_ptr<Table>& weak, Function tarvo_callbacks::*function, Arguments... arguments) {
  const std::shared_ptr<Table> table = weak.lock();
  const InsideCallback inside;
  using Answer = decltype((table->functions.*function)(table->user, arguments...));
  if (table && table->functions.*function != nullptr) return (table->functions.*function)(table->user, arguments...);
  return Answer();
}

/// A handle for one call.
template <class Handle>
class Lent {
 public:
  explicit Lent(std::shared_ptr<typename Kind<Handle>::Object> object) : handle(handleTo<Handle>(std::move(object))) {}
  ~Lent() { unrefTo(handle); }
  Lent(const Lent&) = delete;
  Lent& operator=(const Lent&) = delete;
  Handle* const handle;
};

class Delegate final : public TarvoDelegate {
 public:
  explicit Delegate(std::weak_ptr<Table> table) : table_(std::move(table)) {}

  void tarvoDidReceiveNewLocations(Tarvo&, const std::vector<platform::CLLocation>& newLocations) override {
    std::vector<tarvo_fix> fixes;
    for (const auto& location : newLocations) fixes.push_back(fixOf(location));
    call(table_, &tarvo_callbacks::locations, fixes.data(), fixes.size());
  }
  void tarvoOnRouteMatched(Tarvo&, const LocationsHistory& locationsHistory) override {
    const Lent<tarvo_history> history(std::make_shared<History>(History{locationsHistory}));
    call(table_, &tarvo_callbacks::route_matched, history.handle);
  }
  void tarvoOnPredictionUpdate(Tarvo&, const Trip& trip) override {
    const Lent<tarvo_trip> lent(std::make_shared<PredictedTrip>(PredictedTrip{trip}));
    call(table_, &tarvo_callbacks::prediction, lent.handle);
  }

 private:
  const std::weak_ptr<Table> table_;
};

class Application final : public platform::HostApplication {
 public:
  explicit Application(std::weak_ptr<Table> table) : table_(std::move(table)) {}

  bool presentAlert(const platform::Alert& alert) override {
    auto shown = std::make_shared<ShownAlert>();
    shown->content = alert;
    const Lent<tarvo_alert> lent(std::move(shown));
    return call(table_, &tarvo_callbacks::present_alert, lent.handle) != 0;
  }
  void openURL(const std::string& url) override { call(table_, &tarvo_callbacks::open_url, url.c_str()); }
  void registerForRemoteNotifications() override { call(table_, &tarvo_callbacks::register_for_push); }
  void setMinimumBackgroundFetchInterval(double seconds) override {
    call(table_, &tarvo_callbacks::set_background_fetch_interval, seconds);
  }

 private:
  const std::weak_ptr<Table> table_;
};

/// Keeps the table until the service has let go of it, for it is stopped before.
class Receiver final : public platform::LocationSource {
 public:
  explicit Receiver(std::shared_ptr<Table> table) : table_(std::move(table)) {}

  void start(double desiredAccuracyMetres) override {
    call(table_, &tarvo_callbacks::receiver_start, desiredAccuracyMetres);
  }
  void stop() override { call(table_, &tarvo_callbacks::receiver_stop); }

 private:
  const std::shared_ptr<Table> table_;
};

}  // namespace

Held::Held(void* of, void (*released)(void*), Kind kind) : user(of), released_(released), kind_(kind) { ++held; }

Held::~Held() {
  const InsideCallback inside(kind_ == Kind::log ? InsideCallback::Kind::log : InsideCallback::Kind::callback);
  if (accepted_ && released_ != nullptr) released_(user);
  --held;
}

std::size_t Held::count() { return held; }

struct Host::Pending {
  std::mutex mutex;
  std::vector<std::shared_ptr<Once>> handlers;

  std::shared_ptr<Once> take(const Once* handler) {
    const std::lock_guard lock(mutex);
    const auto place = std::find_if(handlers.begin(), handlers.end(), [&](auto& one) { return one.get() == handler; });
    if (place == handlers.end()) return nullptr;
    auto taken = std::move(*place);
    handlers.erase(place);
    return taken;
  }
};

Host::Host() : pending_(std::make_shared<Pending>()) {}

std::shared_ptr<Table> Host::set(Tarvo& tarvo, std::shared_ptr<Table> table, bool isLast) {
  // What is needed first, so that nothing is half done when memory runs out; what goes, goes after the lock.
  std::shared_ptr<Delegate> delegate;
  std::shared_ptr<Application> application;
  std::shared_ptr<Receiver> receiver;
  std::function<void(platform::AuthorizationRequest)> prompt;
  if (table) {
    delegate = std::make_shared<Delegate>(table);
    application = std::make_shared<Application>(table);
    if (table->functions.receiver_start != nullptr || table->functions.receiver_stop != nullptr)
      receiver = std::make_shared<Receiver>(table);
    if (table->functions.prompt != nullptr)
      prompt = [weak = std::weak_ptr(table)](platform::AuthorizationRequest request) {
        call(weak, &tarvo_callbacks::prompt, static_cast<tarvo_permission_request>(request));
      };
  }
  const std::lock_guard lock(hosts());
  if (isClosed_) throw Refusal{TARVO_BAD_HANDLE};  // freed meanwhile: it must not reach into the next SDK
  isClosed_ = isLast;
  if (table) table->accept();
  table_.swap(table);
  tarvo.setDelegate(std::move(delegate));
  platform::setHostApplication(std::move(application));
  LocationService::shared().setPrompt(std::move(prompt));
  LocationService::shared().setSource(std::move(receiver));
  return table;
}

std::function<void()> Host::once(std::shared_ptr<Once> handler) {
  const Once* const which = handler.get();
  {
    const std::lock_guard lock(pending_->mutex);
    pending_->handlers.push_back(handler);
    handler->accept();
  }
  return [weak = std::weak_ptr(pending_), which] {
    const auto pending = weak.lock();
    const std::shared_ptr<Once> taken = pending ? pending->take(which) : nullptr;
    const InsideCallback inside;
    if (taken && taken->function != nullptr) taken->function(taken->user);
  };
}

std::vector<std::shared_ptr<Held>> Host::clear(Tarvo& tarvo) {
  std::vector<std::shared_ptr<Held>> dropped;
  if (auto table = set(tarvo, nullptr, true)) dropped.push_back(std::move(table));
  const std::lock_guard lock(pending_->mutex);
  for (auto& handler : pending_->handlers) dropped.push_back(std::move(handler));
  pending_->handlers.clear();
  return dropped;
}

}  // namespace tarvo::c
