#include "Feed.h"

#include <poll.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <optional>
#include <thread>
#include <utility>

#include "Pace.h"
#include "Wake.h"

namespace tarvo::receivers {
namespace {

using namespace std::chrono_literals;
using Moment = Waiting::Clock::time_point;
using Outcome = Waiting::Outcome;

/// The messages of one moment follow each other; and so what comes once a second is there when a second's pause is
/// over.
constexpr auto kSettle = 200ms;

/// The system's texts begin with a capital letter.
std::string inSentence(std::string text) {
  if (text.size() > 1 && std::islower(static_cast<unsigned char>(text[1])))
    text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
  return text;
}

class FeedReceiver final : public Receiver, private Waiting {
 public:
  FeedReceiver(std::string name, OpenFeed open, Listener& listener, Patience patience)
      : name_(std::move(name)),
        open_(std::move(open)),
        listener_(listener),
        patience_(patience),
        thread_(startThread("tarvo:receiver", [this] { run(); })) {}
  ~FeedReceiver() override {
    change(State::ending);
    thread_.join();
  }
  FeedReceiver(const FeedReceiver&) = delete;
  FeedReceiver& operator=(const FeedReceiver&) = delete;

  void start(double) override { change(State::wanted); }
  void stop() override { change(State::resting); }

 private:
  enum class State { resting, wanted, ending };

  void change(State state) {
    if (state_.exchange(state) != state) wake_.give();
  }

  Outcome wait(int descriptor, short events, Moment until) override {
    return waitWhile(State::wanted, descriptor, events, until);
  }

  Outcome waitWhile(State state, int descriptor, short events, Moment until) {
    while (state_ == state) {
      pollfd about[] = {{wake_.descriptor(), POLLIN, 0},
                        {descriptor, events, 0}};  // poll leaves out a negative descriptor
      timespec left{}, *patience = nullptr;
      if (until != kForever) {
        const auto span = std::max(until - Clock::now(), Clock::duration::zero());
        left.tv_sec = std::chrono::duration_cast<std::chrono::seconds>(span).count();
        left.tv_nsec = std::chrono::nanoseconds(span % 1s).count();
        patience = &left;
      }
      const int count = ::ppoll(about, 2, patience, nullptr);
      if (count == 0) return Outcome::late;
      if (about[0].revents != 0)
        wake_.take();
      else if (count > 0)
        return Outcome::ready;
    }
    return Outcome::unwanted;
  }

  void run() {
    while (state_ != State::ending) {
      waitWhile(State::resting, -1, 0, kForever);
      while (state_ == State::wanted) serve();
      if (feed_ && !feed_->isRecording()) feed_.reset();
      if (state_ == State::resting) tell(Condition::resting, "rests, nobody needs fixes");
    }
    feed_.reset();
  }

  /// Until the feed is lost or not wanted any more.
  void serve() {
    try {
      if (!feed_) {
        feed_ = open_(*this);
        if (!feed_) return;
        pace_.emplace(feed_->room());
        tell(Condition::searching, "no fix yet");
      }
      if (feed_->isRecording())
        followRecording();
      else
        followDevice();
    } catch (const Lost& lost) {
      feed_.reset();
      tell(Condition::lost, inSentence(lost.what()) + ", it is tried again");
      wait(-1, 0, Clock::now() + std::exchange(pause_, std::min(2 * pause_, patience_.longestPause)));
    }
  }

  void followDevice() {
    for (;;) {
      const bool receives = condition_ == Condition::receiving;
      const Outcome outcome = wait(feed_->descriptor(), POLLIN, receives ? lastFix_ + patience_.silence : kForever);
      if (outcome == Outcome::unwanted) return;
      searchAfterSilence();
      if (outcome == Outcome::late) continue;
      if (wait(-1, 0, Clock::now() + kSettle) == Outcome::unwanted) return;
      while (readAndPause()) continue;
      if (state_ != State::wanted) return;
    }
  }

  /// False when there was nothing, or nobody wants more.
  bool readAndPause() {
    fixes_.clear();
    const std::size_t bytes = feed_->read(fixes_).bytes;
    deliver();
    searchAfterSilence();
    if (bytes == 0) return false;
    const Moment now = Clock::now();
    const auto pause = pace_->pauseAfter(fixes_, bytes, now.time_since_epoch());
    return wait(-1, 0, now + std::chrono::duration_cast<Clock::duration>(pause)) != Outcome::unwanted;
  }

  void followRecording() {
    while (!over_) {
      if (wait(feed_->descriptor(), POLLIN, kForever) == Outcome::unwanted) return;
      fixes_.clear();
      over_ = feed_->read(fixes_).ended;
      deliver();
    }
    tell(Condition::ended, "the recording is over");
    wait(-1, 0, kForever);
  }

  void deliver() {
    if (fixes_.empty()) return;
    lastFix_ = Clock::now();
    pause_ = patience_.shortestPause;
    tell(Condition::receiving, "fixes come");
    listener_.received(fixes_);
  }
  void searchAfterSilence() {
    if (condition_ == Condition::receiving && Clock::now() - lastFix_ >= patience_.silence)
      tell(Condition::searching, "no fix for " + std::to_string(patience_.silence / 1s) + " s");
  }
  void tell(Condition condition, const std::string& what) {
    if (std::exchange(condition_, condition) != condition) listener_.changed(condition, name_ + ": " + what);
  }

  const std::string name_;
  const OpenFeed open_;
  Listener& listener_;
  const Patience patience_;
  const Wake wake_;
  std::atomic<State> state_ = State::resting;
  // The rest is the thread's.
  std::unique_ptr<Feed> feed_;
  std::optional<Pace> pace_;
  Condition condition_ = Condition::resting;
  std::chrono::milliseconds pause_ = patience_.shortestPause;
  Moment lastFix_;
  bool over_ = false;
  std::vector<platform::CLLocation> fixes_;
  std::thread thread_;  // last: it uses the rest
};

}  // namespace

std::unique_ptr<Receiver> receiverOf(std::string name, OpenFeed open, Listener& listener, Patience patience) {
  return std::make_unique<FeedReceiver>(std::move(name), std::move(open), listener, patience);
}

}  // namespace tarvo::receivers
