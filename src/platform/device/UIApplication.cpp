#include <atomic>

#include <tarvo/platform/Device.h>
#include <tarvo/platform/MainQueue.h>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/NotificationCenter.h"

namespace tarvo::platform {
namespace {

struct Application {
  std::atomic<UIApplicationState> state{UIApplicationState::active};
  Mutex mutex;
  std::shared_ptr<HostApplication> host GUARDED_BY(mutex) = std::make_shared<HostApplication>();
};

Application& application() {
  static Application* const application = new Application;
  return *application;
}

/// Calls the host on the main queue, with the answers that are installed by then.
void postToHost(const char* callback, std::function<void(HostApplication&)> call) {
  MainQueue::main().async([callback, call = std::move(call)] {
    std::shared_ptr<HostApplication> host;
    {
      MutexLock lock(application().mutex);
      host = application().host;
    }
    callHost(callback, [&] { call(*host); });
  });
}

void post(const char* notification) { NotificationCenter::defaultCenter().post(notification); }

}  // namespace

HostApplication::~HostApplication() = default;
bool HostApplication::presentAlert(const Alert&) { return false; }
void HostApplication::openURL(const std::string&) {}
void HostApplication::registerForRemoteNotifications() {}
void HostApplication::setMinimumBackgroundFetchInterval(double) {}

void setHostApplication(std::shared_ptr<HostApplication> host) {
  if (!host) host = std::make_shared<HostApplication>();
  MutexLock lock(application().mutex);
  application().host.swap(host);
}

UIApplication& UIApplication::shared() {
  static UIApplication* const shared = new UIApplication;
  return *shared;
}

UIApplicationState UIApplication::applicationState() const { return application().state; }

void UIApplication::didFinishLaunching() { post(UIApplicationDidFinishLaunchingNotification); }

void UIApplication::didBecomeActive() {
  application().state = UIApplicationState::active;
  post(UIApplicationDidBecomeActiveNotification);
}

void UIApplication::willResignActive() {
  application().state = UIApplicationState::inactive;
  post(UIApplicationWillResignActiveNotification);
}

void UIApplication::didEnterBackground() {
  application().state = UIApplicationState::background;
  post(UIApplicationDidEnterBackgroundNotification);
}

void UIApplication::present(Alert alert) {
  postToHost("presentAlert", [alert = std::move(alert)](HostApplication& host) { host.presentAlert(alert); });
}

void UIApplication::openURL(std::string url) {
  postToHost("openURL", [url = std::move(url)](HostApplication& host) { host.openURL(url); });
}

void UIApplication::registerForRemoteNotifications() {
  postToHost("registerForRemoteNotifications", [](HostApplication& host) { host.registerForRemoteNotifications(); });
}

void UIApplication::setMinimumBackgroundFetchInterval(double seconds) {
  postToHost("setMinimumBackgroundFetchInterval",
             [seconds](HostApplication& host) { host.setMinimumBackgroundFetchInterval(seconds); });
}

}  // namespace tarvo::platform
