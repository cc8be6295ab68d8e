#include "Nmea.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <stdexcept>
#include <utility>

#include <tarvo/platform/Clock.h>

#include "Feed.h"
#include "NmeaReader.h"

namespace tarvo::receivers {
namespace {

using platform::CLLocation;

const std::map<int, speed_t> kRates = {{1200, B1200},     {2400, B2400},     {4800, B4800},    {9600, B9600},
                                       {19200, B19200},   {38400, B38400},   {57600, B57600},  {115200, B115200},
                                       {230400, B230400}, {460800, B460800}, {921600, B921600}};
/// What a terminal holds; and what a pipe does.
constexpr std::size_t kTerminalRoom = 4096, kPipeRoom = 65536;

[[noreturn]] void loseBy(int error) { throw Lost(std::strerror(error)); }

/// Bytes as they are, none of them a command, and no modem to wait for.
void makeRaw(int terminal, int rate) {
  termios settings{};
  if (::tcgetattr(terminal, &settings) != 0) loseBy(errno);
  ::cfmakeraw(&settings);
  settings.c_cflag |= CLOCAL | CREAD;
  if (rate != 0) ::cfsetspeed(&settings, kRates.at(rate));
  if (::tcsetattr(terminal, TCSANOW, &settings) != 0) loseBy(errno);
}

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {
    if (number < 0) loseBy(errno);
  }
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  operator int() const { return number_; }

 private:
  int number_;
};

class NmeaFeed final : public Feed {
 public:
  NmeaFeed(Descriptor input, bool isRecording, platform::Date built)
      : input_(std::move(input)), isRecording_(isRecording), isTerminal_(::isatty(input_)), built_(built) {}

  int descriptor() const override { return input_; }
  std::size_t room() const override { return isTerminal_ ? kTerminalRoom : kPipeRoom; }
  bool isRecording() const override { return isRecording_; }

  Got read(std::vector<CLLocation>& fixes) override {
    Got got;
    ssize_t count = 0;
    char bytes[16384];
    // A recording's descriptor is shared with other processes and may block: one read, which was announced.
    do {
      count = ::read(input_, bytes, sizeof bytes);
      if (count > 0) reader_.take({bytes, static_cast<std::size_t>(count)}, fixes);
      got.bytes += count > 0 ? static_cast<std::size_t>(count) : 0;
    } while (count > 0 && !isRecording_ && got.bytes < kPipeRoom);
    const int error = count < 0 ? errno : 0;
    got.ended = count == 0 && isRecording_;
    if (count <= 0 && error != EAGAIN && error != EINTR) reader_.finish(fixes);
    if (error == EAGAIN && got.bytes == 0) reader_.pause(fixes);
    if (!isRecording_)
      for (CLLocation& fix : fixes)
        fix.timestamp = withoutRollover(fix.timestamp, platform::Clock::current()->now(), built_);
    if (count > 0 || error == EAGAIN || error == EINTR || got.ended || !fixes.empty()) return got;
    throw Lost(count == 0 ? "the device has gone" : std::strerror(error));
  }

 private:
  const Descriptor input_;
  const bool isRecording_, isTerminal_;
  const platform::Date built_;
  NmeaReader reader_;
};

std::unique_ptr<Feed> open(const std::string& source, const NmeaOptions& options) {
  if (source == "-") return std::make_unique<NmeaFeed>(Descriptor(::fcntl(0, F_DUPFD_CLOEXEC, 3)), true, options.built);
  struct stat about {};
  if (::stat(source.c_str(), &about) != 0) loseBy(errno);
  // A pipe that is open for writing too does not end with the process that writes it.
  const int direction = S_ISFIFO(about.st_mode) ? O_RDWR : O_RDONLY;
  Descriptor input(::open(source.c_str(), direction | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (S_ISDIR(about.st_mode)) loseBy(EISDIR);
  if (::isatty(input)) makeRaw(input, options.baudRate);
  return std::make_unique<NmeaFeed>(std::move(input), S_ISREG(about.st_mode), options.built);
}

}  // namespace

std::unique_ptr<Receiver> openNmea(const std::string& source, NmeaOptions options, Listener& listener) {
  if (source.empty()) throw std::invalid_argument("NMEA from where: a device, a file, or - for the standard input");
  if (options.baudRate != 0 && !kRates.contains(options.baudRate)) {
    std::string rates;
    for (const auto& [rate, ignored] : kRates) rates += (rates.empty() ? "" : ", ") + std::to_string(rate);
    throw std::invalid_argument("no serial line has " + std::to_string(options.baudRate) +
                                " bits a second; there are " + rates);
  }
  return receiverOf(
      "NMEA from " + (source == "-" ? "the standard input" : source),
      [source, options](Waiting&) { return open(source, options); }, listener);
}

}  // namespace tarvo::receivers
