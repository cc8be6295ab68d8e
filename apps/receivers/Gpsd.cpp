#include "Gpsd.h"

#include <stdexcept>

#ifdef TARVO_WITH_GPS
#include <gps.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <optional>
#include <string_view>

#include "Accuracy.h"
#include "Connection.h"
#include "Feed.h"
#endif

namespace tarvo::receivers {

#ifdef TARVO_WITH_GPS
namespace {

using platform::CLLocation;
using platform::Seconds;

constexpr std::string_view kWatch = "?WATCH={\"enable\":true,\"json\":true};\n";
/// gpsd's own bound for a line is 10240 bytes.
constexpr std::size_t kLongestLine = 16384;
constexpr std::size_t kRoom = 131072;  ///< a socket's buffer, as Linux makes it
constexpr Seconds kDeviceSilence{10};

double orInvalid(double value) { return std::isfinite(value) ? value : -1; }
/// gpsd tells an error of 0 while it has no dilution yet.
double orAssumed(double metres) { return std::isfinite(metres) && metres > 0 ? metres : kAssumedMetres; }

/// Absent where the report is no fix. `status` says nothing: it is 0 in good ones, too.
std::optional<CLLocation> fixOf(const gps_data_t& data) {
  const gps_fix_t& from = data.fix;
  if ((data.set & TIME_SET) == 0 || from.mode < MODE_2D || from.time.tv_sec <= 0) return std::nullopt;
  if (!std::isfinite(from.latitude) || !std::isfinite(from.longitude)) return std::nullopt;
  CLLocation fix;
  fix.coordinate = {from.latitude, from.longitude};
  const double error = std::isfinite(from.eph) ? from.eph : std::hypot(from.epx, from.epy);
  fix.horizontalAccuracy = orAssumed(error);
  if (from.mode >= MODE_3D && std::isfinite(from.altMSL)) {
    fix.altitude = from.altMSL;
    fix.verticalAccuracy = orAssumed(from.epv);
  }
  fix.course = orInvalid(from.track);
  fix.speed = orInvalid(from.speed);
  fix.timestamp =
      platform::dateSince1970(static_cast<double>(from.time.tv_sec) + static_cast<double>(from.time.tv_nsec) * 1e-9);
  return fix;
}

/// The one of several devices whose fixes are used.
class DeviceChoice {
 public:
  bool takes(std::string_view device, double accuracy, Seconds now) {
    const bool isUsed = device == used_;
    if (!isUsed && now - last_ < kDeviceSilence && accuracy * 2 >= accuracy_) return false;
    if (!isUsed) used_ = device;
    accuracy_ = accuracy;
    last_ = now;
    return true;
  }
  std::string_view used() const { return used_; }

 private:
  std::string used_;
  double accuracy_ = 0;
  Seconds last_{-1e9};
};

class GpsdFeed final : public Feed {
 public:
  explicit GpsdFeed(int socket) : socket_(socket), data_(std::make_unique<gps_data_t>()) {
    if (::send(socket_, kWatch.data(), kWatch.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(kWatch.size())) return;
    const int error = errno;
    ::close(socket_);
    throw Lost(std::strerror(error));
  }
  ~GpsdFeed() override { ::close(socket_); }
  GpsdFeed(const GpsdFeed&) = delete;
  GpsdFeed& operator=(const GpsdFeed&) = delete;

  int descriptor() const override { return socket_; }
  std::size_t room() const override { return kRoom; }

  Got read(std::vector<CLLocation>& fixes) override {
    Got got;
    char bytes[16384];
    for (ssize_t count; got.bytes < kRoom; got.bytes += static_cast<std::size_t>(count)) {
      count = ::recv(socket_, bytes, sizeof bytes, MSG_DONTWAIT);
      if (count < 0 && errno == EINTR)
        count = 0;
      else if (count < 0 && errno == EAGAIN)
        break;
      else if (count <= 0 && fixes.empty())
        throw Lost(count == 0 ? "it has ended the connection" : std::strerror(errno));
      else if (count <= 0)
        break;  // the next read tells it again
      take({bytes, static_cast<std::size_t>(count)}, fixes);
    }
    return got;
  }

 private:
  void take(std::string_view bytes, std::vector<CLLocation>& fixes) {
    while (!bytes.empty()) {
      const std::size_t end = bytes.find('\n');
      const std::string_view part = bytes.substr(0, end);
      if (line_.size() <= kLongestLine) line_.append(part.substr(0, kLongestLine + 1));
      bytes.remove_prefix(end == bytes.npos ? bytes.size() : end + 1);
      if (end == bytes.npos) return;
      if (line_.size() <= kLongestLine) report(fixes);
      line_.clear();
    }
  }

  /// libgps reads one line; what it makes of other messages changes the same structure, so they are not shown to it.
  void report(std::vector<CLLocation>& fixes) {
    if (!line_.starts_with("{\"class\":\"TPV\"") || ::gps_unpack(line_.data(), data_.get()) != 0) return;
    const auto fix = fixOf(*data_);
    const std::string_view device(data_->dev.path, ::strnlen(data_->dev.path, sizeof data_->dev.path));
    const std::string before(choice_.used());
    if (!fix || !choice_.takes(device, fix->horizontalAccuracy, Waiting::Clock::now().time_since_epoch())) return;
    if (before == device && !fixes.empty() && fixes.back().timestamp == fix->timestamp)
      fixes.back() = *fix;
    else
      fixes.push_back(*fix);
  }

  const int socket_;
  const std::unique_ptr<gps_data_t> data_;
  DeviceChoice choice_;
  std::string line_;
};

struct Address {
  std::string host = "localhost", port = "2947";
};

Address parse(const std::string& text) {
  Address address;
  const auto refuse = [&] { throw std::invalid_argument("neither HOST, HOST:PORT nor [IPV6]:PORT: " + text); };
  const bool isBracketed = text.starts_with('[');
  const std::size_t bracket = isBracketed ? text.find(']') : 0;
  if (bracket == text.npos) refuse();
  std::size_t colon = text.find(':', bracket);
  // More than one colon and no brackets: an IPv6 address without a port.
  if (!isBracketed && colon != text.npos && text.find(':', colon + 1) != text.npos) colon = text.npos;
  const std::string host = isBracketed ? text.substr(1, bracket - 1) : text.substr(0, colon);
  if (isBracketed && (host.empty() || (colon != bracket + 1 && bracket + 1 != text.size()))) refuse();
  if (!host.empty()) address.host = host;
  if (colon == text.npos) return address;
  address.port = text.substr(colon + 1);
  unsigned number = 0;
  const char* end = address.port.data() + address.port.size();
  const auto [rest, error] = std::from_chars(address.port.data(), end, number);
  if (error != std::errc() || rest != end || number < 1 || number > 65535) refuse();
  return address;
}

}  // namespace

std::unique_ptr<Receiver> openGpsd(const std::string& address, Listener& listener) {
  const Address to = parse(address);
  const bool isIPv6 = to.host.find(':') != to.host.npos;
  const std::string name = "gpsd at " + (isIPv6 ? "[" + to.host + "]" : to.host) + ":" + to.port;
  return receiverOf(
      name,
      [to](Waiting& waiting) -> std::unique_ptr<Feed> {
        const int socket = connectTo(to.host, to.port, waiting);
        return socket < 0 ? nullptr : std::make_unique<GpsdFeed>(socket);
      },
      listener);
}

#else

std::unique_ptr<Receiver> openGpsd(const std::string&, Listener&) {
  throw std::invalid_argument("this program was built without gpsd's library (libgps)");
}

#endif

}  // namespace tarvo::receivers
