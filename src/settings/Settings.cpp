#include "settings/Settings.h"

#include <algorithm>
#include <utility>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/SystemLog.h>
#include <tarvo/platform/UserDefaults.h>

#include "platform/foundation/Encoding.h"
#include "platform/foundation/Files.h"
#include "settings/Names.h"

namespace tarvo {

using platform::MutexLock;
using platform::UserDefaults;

namespace {

bool isHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f'); }

/// Whether the character may stand in a segment of a path as it is.
bool standsInPath(char c) { return platform::isPlain(c, platform::kPathMarks); }

}  // namespace

bool isUsableClientID(std::string_view clientID) {
  std::string plain;  // with "%2E" as the dot that it means
  while (!clientID.empty()) {
    std::size_t length = 1;
    char c = clientID.front();
    if (c == '%') {
      length = 3;
      if (clientID.size() < length || !isHexDigit(clientID[1]) || !isHexDigit(clientID[2])) return false;
      if (clientID[1] == '2' && (clientID[2] == 'E' || clientID[2] == 'e')) c = '.';
    } else if (!standsInPath(c)) {
      return false;
    }
    plain += c;
    clientID.remove_prefix(length);
  }
  return plain != "." && plain != "..";
}

bool isUsableUserUUID(std::string_view uuid) {
  constexpr std::size_t kMost = 200;  // what a file's name holds beside the rest of that of a log file
  return uuid.size() <= kMost && platform::isPlainFileName(uuid) && std::all_of(uuid.begin(), uuid.end(), standsInPath);
}

UploadChannel::Attempt UploadChannel::tryTake(platform::Date now) {
  MutexLock lock(mutex_);
  if (!takenAt_) takenAt_ = now;
  const platform::Seconds elapsed = now - *takenAt_;
  const bool take = !locked_ || elapsed >= kExpiry;
  const Attempt attempt{locked_, elapsed, take};
  if (take) {
    locked_ = true;
    takenAt_ = now;
  }
  return attempt;
}

bool UploadChannel::locked() const {
  MutexLock lock(mutex_);
  return locked_;
}

void UploadChannel::setLocked(bool locked) {
  MutexLock lock(mutex_);
  locked_ = locked;
}

void UploadChannel::reset() {
  MutexLock lock(mutex_);
  locked_ = false;
  takenAt_.reset();
}

platform::Date UploadChannel::takenAt() const {
  const platform::Date now = platform::Clock::current()->now();
  MutexLock lock(mutex_);
  if (!takenAt_) takenAt_ = now;
  return *takenAt_;
}

void UploadChannel::setTakenAt(platform::Date date) {
  MutexLock lock(mutex_);
  takenAt_ = date;
}

Settings& Settings::shared() {
  static Settings* settings = new Settings;
  return *settings;
}

void Settings::adoptUserUUID(std::string_view uuid) {
  userUUID.update([&](auto& known) {
    if (!known) known = uuid;
  });
}

void Settings::storeUserSecret(std::string secret) {
  MutexLock order(secretMutex_);
  UserDefaults::standard().set(names::kUserSecret, secret);
  userSecret.set(std::move(secret));
}

void Settings::forgetUser() {
  {
    MutexLock order(secretMutex_);
    userSecret.set({});
  }
  userUUID.set({});
  deviceToken.set({});
  tokenSent.set(false);
  lastTripID.set(0);
  subscriptions.set({});
  unsubscriptions.set({});
  tagsToSet.set({});
  tagsToUnset.set({});
  uploadChannel.reset();
}

std::optional<std::string> Settings::reloadUserSecret() {
  MutexLock order(secretMutex_);
  auto secret = UserDefaults::standard().string(names::kUserSecret);
  userSecret.set(secret);
  return secret;
}

std::optional<Credentials> Settings::identity() const {
  auto uuid = userUUID.get();
  auto secret = userSecret.get();
  if (!uuid || !secret) return std::nullopt;
  return Credentials{std::move(*uuid), std::move(*secret)};
}

bool Settings::setClientID(std::string_view clientID) {
  if (!isUsableClientID(clientID)) {
    platform::NSLog("Tarvo : client id refused: it would not make a valid URL");
    return false;
  }
  clientID_.set(std::string(clientID));
  return true;
}

std::string Settings::remoteWebServerURL() const { return remoteWebServerURL_.get().url; }

bool Settings::setRemoteWebServerURL(std::string url) {
  return remoteWebServerURL_.update([&](BackendAddress& address) {
    if (address.copied) return address.url == url;
    address.url = std::move(url);
    return true;
  });
}

std::string Settings::copyRemoteWebServerURL() {
  return remoteWebServerURL_.update([](BackendAddress& address) {
    address.copied = true;
    return address.url;
  });
}

}  // namespace tarvo
