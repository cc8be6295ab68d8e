#pragma once

#include <tarvo-c/tarvo.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include <tarvo/Tarvo.h>

namespace tarvo::c {

/// Something of the host's that it is told the end of: `released` is called once, when nothing of it is called any
/// more, which is when the last share has gone.
class Held {
 public:
  enum class Kind { callbacks, log };
  Held(void* of, void (*released)(void*), Kind kind = Kind::callbacks);
  ~Held();
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;

  /// From now on its end is told; what was refused before is not released.
  void accept() { accepted_ = true; }

  void* const user;
  /// How many there are.
  static std::size_t count();

 private:
  void (*const released_)(void*);
  const Kind kind_;
  bool accepted_ = false;
};

/// The host's table of functions.
struct Table : Held {
  explicit Table(const tarvo_callbacks& table) : Held(table.user, table.released), functions(table) {}
  const tarvo_callbacks functions;
};

/// A function of the host that is called once, or never.
struct Once : Held {
  Once(void (*handler)(void*), void* of, void (*released)(void*)) : Held(of, released), function(handler) {}
  void (*const function)(void*);
};

/// What the SDK calls the host through, and what keeps the host's functions: the SDK has weak shares of them alone, so
/// that they are released when the host lets go of them and not when the SDK does. A receiver is told to stop first.
///
/// Threads: any. Nothing of the host's is called with a lock held.
class Host {
 public:
  Host();
  /// Puts a table, or none, in the place of the one before, which it gives back. Refused behind the last.
  std::shared_ptr<Table> set(Tarvo& tarvo, std::shared_ptr<Table> table, bool isLast = false);
  /// A handler for the SDK that calls the function, the first time, and forgets it.
  std::function<void()> once(std::shared_ptr<Once> handler);
  /// Lets go of everything: the SDK calls the host no more. What the answer holds is released with it.
  [[nodiscard]] std::vector<std::shared_ptr<Held>> clear(Tarvo& tarvo);

 private:
  struct Pending;
  std::shared_ptr<Table> table_;  ///< under the lock that all hosts share
  bool isClosed_ = false;         ///< the same
  const std::shared_ptr<Pending> pending_;
};

}  // namespace tarvo::c
