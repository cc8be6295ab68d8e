#pragma once

#include <libpq-fe.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tarvo::sandbox::postgres {

/// What the server or the connection to it has refused, with the engine's text and its five-digit SQLSTATE ("" when
/// the connection was lost).
class Error : public std::runtime_error {
 public:
  Error(const std::string& text, std::string sqlState) : std::runtime_error(text), state(std::move(sqlState)) {}
  const std::string state;
};

constexpr const char* kSerializationFailure = "40001";
constexpr const char* kDeadlock = "40P01";
constexpr const char* kCheckViolation = "23514";

/// The text as the server can keep it: what is no UTF-8, and NUL, is replaced by U+FFFD. No identity that the store has
/// given is changed by it, nor can another text become one.
std::string storable(std::string_view text);

/// An array as one parameter, in the engine's binary form, so that nothing is quoted or copied by digits.
class Array {
 public:
  enum Element : unsigned { Int8 = 20, Text = 25, Float8 = 701, Date = 1082 };
  explicit Array(Element element) : element_(element) {}

  void add(std::string_view text);
  void add(std::int64_t number);
  void add(double number);
  /// Days since 1970, or NULL.
  void addDay(std::optional<int> day);
  void addNull();
  std::string bytes() const;

 private:
  const Element element_;
  std::string elements_;
  std::uint32_t count_ = 0;
  bool hasNull_ = false;
};

/// Those of one statement, in their order.
class Parameters {
 public:
  Parameters& operator<<(std::string_view text) { return add(storable(text), 0); }
  Parameters& operator<<(const std::string& text) { return *this << std::string_view(text); }
  Parameters& operator<<(const char* text) { return *this << std::string_view(text); }
  Parameters& operator<<(std::int64_t number) { return add(std::to_string(number), 0); }
  Parameters& operator<<(double number);
  Parameters& operator<<(const Array& array) { return add(array.bytes(), 1); }
  Parameters& bytes(std::string_view content) { return add(std::string(content), 1); }

 private:
  friend class Connection;
  Parameters& add(std::string value, int format) {
    values_.push_back(std::move(value));
    formats_.push_back(format);
    return *this;
  }

  std::vector<std::string> values_;
  std::vector<int> formats_;
};

class Result {
 public:
  explicit Result(PGresult* result) : result_(result, PQclear) {}

  int rows() const { return PQntuples(result_.get()); }
  bool isNull(int row, int column) const { return PQgetisnull(result_.get(), row, column) != 0; }
  std::string text(int row, int column) const;
  std::int64_t number(int row, int column) const;
  double real(int row, int column) const;

 private:
  friend class Connection;
  std::unique_ptr<PGresult, void (*)(PGresult*)> result_;
};

/// One connection. Threads: one at a time. Errors: Error.
class Connection {
 public:
  /// `url` is anything that libpq takes as a URI.
  explicit Connection(const std::string& url);

  /// One statement and one round trip. Columns come as texts, or raw where `raw` asks for it. It is planned for its
  /// parameters each time: which days it looks at depends on them, and a plan for any would lock every day there is.
  Result run(const std::string& sql, const Parameters& parameters = {}, bool raw = false);

  /// Whether a new use can begin; notices a server that has gone meanwhile, without asking it.
  bool isReady();

 private:
  Error failure(PGresult* result) const;

  std::unique_ptr<PGconn, void (*)(PGconn*)> connection_;
};

/// What is run before `commit` holds as a whole or not at all.
class Transaction {
 public:
  enum Kind { Writes, OneMoment };
  explicit Transaction(Connection& connection, Kind kind = Writes);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  void commit();

 private:
  Connection& connection_;
  bool open_ = true;
};

/// At most `most` connections, made when they are needed; one that was lost is made anew at its next use.
///
/// Threads: any. Errors: Error, also when none gets free for half a minute.
class Pool {
 public:
  Pool(std::string url, std::size_t most) : url_(std::move(url)), most_(most) {}

  /// A connection for as long as this lives.
  class Lease {
   public:
    explicit Lease(Pool& pool) : pool_(pool), connection_(pool.take()) {}
    ~Lease() { pool_.giveBack(std::move(connection_)); }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    Connection& operator*() const { return *connection_; }
    Connection* operator->() const { return connection_.get(); }

   private:
    Pool& pool_;
    std::unique_ptr<Connection> connection_;
  };

 private:
  std::unique_ptr<Connection> take();
  void giveBack(std::unique_ptr<Connection> connection);

  const std::string url_;
  const std::size_t most_;
  std::mutex mutex_;
  std::condition_variable freed_;
  std::vector<std::unique_ptr<Connection>> idle_;
  std::size_t inUse_ = 0;
};

}  // namespace tarvo::sandbox::postgres
