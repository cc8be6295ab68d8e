#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <future>
#include <thread>

#include <tarvo/Tarvo.h>
#include <tarvo/platform/Environment.h>

#include "support/TempDir.h"
#include "unit/Control.h"
#include "unit/ControlClient.h"
#include "unit/Supervisor.h"
#include "unit/UnixAddress.h"

std::atomic<int> accepts = -1;  ///< counted from 0, the first two for want of a descriptor in vain

/// Stands before that of the C library.
extern "C" int accept4(int socket, sockaddr*, socklen_t*, int flags) {
  const bool isInVain = accepts >= 0 && ++accepts <= 2;
  if (isInVain) errno = EMFILE;
  return isInVain ? -1 : static_cast<int>(::syscall(SYS_accept4, socket, nullptr, nullptr, flags));
}

namespace tarvo::unit {
namespace {

using platform::Dictionary;
using platform::Seconds;

/// A socket that echoes requests: those with "later" once `answerLater` is asked for. What a test does runs beside it.
struct ControlTest : testing::Test {
  void serve(const std::function<void()>& beside) {
    Control control(loop, home, [this](const Dictionary& request, const Control::Reply& reply) {
      if (platform::find(request, "later") != nullptr) return later.push_back(reply);
      for (const Control::Reply& each : std::exchange(later, {})) each({{"late", true}});
      reply(request);
    });
    std::thread client([&] {
      beside();
      loop.post([&] { loop.end(0); });
    });
    loop.run();
    client.join();
  }
  /// What comes back for these bytes until the other side has no more to say.
  std::string exchange(const std::string& bytes) const {
    const int socket = connected();
    EXPECT_GT(::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL), 0);  // not all, where the other side ends early
    ::shutdown(socket, SHUT_WR);
    std::string all;
    char buffer[4096];
    for (ssize_t count = 0; (count = ::recv(socket, buffer, sizeof buffer, 0)) > 0;) all.append(buffer, size_t(count));
    ::close(socket);
    return all;
  }
  int connected() const {
    const UnixAddress address(home);
    const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(::connect(socket, address.get(), address.size()), 0);
    return socket;
  }

  const test::TempDir folder;
  std::filesystem::path home = folder.path();
  Loop loop;
  std::vector<Control::Reply> later;
};

TEST_F(ControlTest, AnswersEachLineInOrderAndRefusesWhatIsNone) {
  const std::string refused = R"({"error":"a request is one line with a JSON object, of at most 64 KiB"})"
                              "\n";
  const std::string most(Control::kLargestLine - 8, 'x'), longest = R"({"a":")" + most + "\"}\n";
  const struct {
    const char* what;
    std::string sent, answered;
  } cases[] = {
      {"one", "{\"a\":1}\n", "{\"a\":1}\n"},
      {"three at once", "{\"a\":1}\n{\"a\":2}\nno\n", "{\"a\":1}\n{\"a\":2}\n" + refused},
      {"an array", "[1]\n{}\n", refused + "{}\n"},
      {"no end of a line", "{\"a\":1}", ""},
      {"the longest", longest, longest},
      {"too long, and with it the connection ends", std::string(3 * Control::kLargestLine, 'x'), refused},
      {"many",
       [] {
         std::string all;
         for (int i = 0; i < 9000; ++i) all += "{\"number\":1}\n";
         return all;
       }(),
       [] {
         std::string all;
         for (int i = 0; i < 9000; ++i) all += "{\"number\":1}\n";
         return all;
       }()},
  };
  serve([&] {
    for (const auto& [what, sent, answered] : cases) EXPECT_TRUE(exchange(sent) == answered) << what;
  });
}

TEST_F(ControlTest, OutlivesClientsThatAreSlowDeadOrTooMany) {
  serve([&] {
    const int mute = connected(), gone = connected();
    const std::string request = R"({"a":")" + std::string(60'000, 'x') + "\"}\n", late = "{\"later\":1}\n";
    for (int i = 0; i < 50; ++i) ::send(mute, request.data(), request.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    ::send(gone, late.data(), late.size(), MSG_NOSIGNAL);
    ::close(gone);
    std::vector<int> idle(Control::kMostClients);
    for (int& each : idle) each = connected();
    EXPECT_EQ(exchange("{}\n"), "{}\n");
    for (const int each : idle) ::close(each);
    ::close(mute);

    std::string error;
    auto client = ControlClient::connect(home, error);
    auto waiting = ControlClient::connect(home, error);
    ASSERT_TRUE(client && waiting) << error;
    EXPECT_FALSE(waiting->ask({{"later", 1}}, Seconds(0.01), error));
    EXPECT_EQ(error, "the unit does not answer");
    EXPECT_EQ(client->ask({{"b", 2}}, Seconds(20), error), (Dictionary{{"b", 2}})) << error;
    EXPECT_EQ(waiting->ask({{"c", 3}}, Seconds(20), error), (Dictionary{{"late", true}})) << "the answers keep order";
  });
}

TEST_F(ControlTest, PausesWhileThereIsNoDescriptorForAClient) {
  accepts = 0;
  const auto begin = std::chrono::steady_clock::now();
  serve([&] { EXPECT_EQ(exchange("{}\n"), "{}\n"); });
  EXPECT_EQ(accepts, 3);
  EXPECT_GT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2)) << "a second for each in vain";
}

TEST_F(ControlTest, LiesInAnyHomeForItsUserAloneInThePlaceOfADeadOne) {
  home = folder.path() / std::string(150, 'l') / std::string(150, 'n');
  std::filesystem::create_directories(home);
  std::ofstream(home / "control") << "left";
  std::string error;
  EXPECT_FALSE(ControlClient::connect(home, error));
  EXPECT_EQ(error, "no unit runs on " + home.string());
  serve([&] {
    struct stat status = {};
    ASSERT_EQ(::stat((home / "control").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFSOCK | S_IRUSR | S_IWUSR);
    EXPECT_EQ(exchange("{}\n"), "{}\n");
  });
  EXPECT_FALSE(std::filesystem::exists(home / "control"));
}

/// Holds the location service's queue until it is let go.
struct Stuck final : platform::LocationSource {
  void start(double) override { held.get_future().wait(); }
  void stop() override {}
  std::promise<void> held;
};

/// A service manager that asks for a watchdog each 40 ms.
struct ServiceManager {
  explicit ServiceManager(const std::filesystem::path& folder) : address(folder) {
    EXPECT_EQ(::bind(socket, address.get(), address.size()), 0);
    ::setenv("NOTIFY_SOCKET", address.path(), 1);
    ::setenv("WATCHDOG_USEC", "40000", 1);
    ::setenv("WATCHDOG_PID", std::to_string(::getpid()).c_str(), 1);
  }
  ~ServiceManager() { ::close(socket); }
  /// The next message; empty when none comes within so many seconds.
  std::string next(int seconds) const {
    const timeval bound = {seconds, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
    char text[256];
    const ssize_t count = ::recv(socket, text, sizeof text, 0);
    return count < 0 ? std::string() : std::string(text, size_t(count));
  }
  std::string afterWatchdogs(int seconds) const {
    std::string told = next(seconds);
    while (told == "WATCHDOG=1") told = next(seconds);
    return told;
  }
  const UnixAddress address;
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM, 0);
};

TEST_F(ControlTest, TheWatchdogIsFedOnlyWhileTheEngineMoves) {
  const ServiceManager manager(home);
  platform::setHomeDirectory(folder.path());
  Tarvo tarvo;
  tarvo.activate(Tarvo::LOCAL_BACKGROUND);
  Supervisor supervisor(loop, [] {});
  const auto stuck = std::make_shared<Stuck>();
  std::thread beside([&] {
    EXPECT_EQ(manager.next(60), "READY=1");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(manager.next(60), "WATCHDOG=1");
    platform::LocationService::shared().setSource(stuck);
    EXPECT_EQ(manager.afterWatchdogs(1), "") << "what was asked before is still answered, and nothing after it";
    stuck->held.set_value();
    EXPECT_EQ(manager.next(60), "WATCHDOG=1");
    loop.post([&] { supervisor.status("a line"), supervisor.status("a line"), supervisor.stopping(Seconds(2)); });
    EXPECT_EQ(manager.afterWatchdogs(60), "STATUS=a line");
    EXPECT_EQ(manager.afterWatchdogs(60), "STOPPING=1\nEXTEND_TIMEOUT_USEC=2000000");
    loop.post([&] { loop.end(0); });
  });
  supervisor.ready();
  loop.run();
  beside.join();
}

}  // namespace
}  // namespace tarvo::unit
