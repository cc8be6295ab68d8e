#include "sandbox/store/PostgresConnection.h"

#include <poll.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <limits>

namespace tarvo::sandbox::postgres {
namespace {

/// A process that hangs in a transaction must not keep others from its user for long.
constexpr const char* kSettings =
    "SET lock_timeout='20s';SET idle_in_transaction_session_timeout='60s';SET timezone='UTC';"
    "SET datestyle='ISO';SET client_min_messages='warning'";

/// Multiranges.
constexpr int kOldestServer = 140000;

constexpr std::chrono::seconds kLongestWait{30};

/// Days from 1970 to the engine's own epoch, 2000.
constexpr int kEpoch = 10957;

template <class Unsigned>
void append(std::string& bytes, Unsigned number) {
  for (int shift = static_cast<int>(sizeof number) * 8 - 8; shift >= 0; shift -= 8)
    bytes += static_cast<char>(number >> shift & 0xff);
}

std::string trimmed(const char* text) {
  std::string line = text == nullptr ? "" : text;
  while (!line.empty() && line.back() == '\n') line.pop_back();
  return line.empty() ? "the connection to the database was lost" : line;
}

/// Length of the character that the text begins with; 0 where it is none.
std::size_t characterLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
  const unsigned first = byte(0), second = byte(1);
  if (first < 0x80) return first == 0 ? 0 : 1;
  const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  // The second byte rules out what a shorter form could say, halves of a pair, and what lies beyond the last character.
  const unsigned least = first == 0xe0 ? 0xa0 : first == 0xf0 ? 0x90 : 0x80;
  const unsigned most = first == 0xed ? 0x9f : first == 0xf4 ? 0x8f : 0xbf;
  if (first < 0xc2 || first > 0xf4 || second < least || second > most) return 0;
  for (std::size_t i = 2; i < length; ++i)
    if ((byte(i) & 0xc0) != 0x80) return 0;
  return length;
}

}  // namespace

std::string storable(std::string_view text) {
  std::string kept;
  kept.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = characterLength(text);
    kept += length == 0 ? "\xEF\xBF\xBD" : text.substr(0, length);
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return kept;
}

void Array::add(std::string_view text) {
  const std::string kept = storable(text);
  append(elements_, static_cast<std::uint32_t>(kept.size()));
  elements_ += kept;
  ++count_;
}

void Array::add(std::int64_t number) {
  append(elements_, std::uint32_t{8});
  append(elements_, static_cast<std::uint64_t>(number));
  ++count_;
}

void Array::add(double number) {
  append(elements_, std::uint32_t{8});
  append(elements_, std::bit_cast<std::uint64_t>(number));
  ++count_;
}

void Array::addDay(std::optional<int> day) {
  if (!day) return addNull();
  append(elements_, std::uint32_t{4});
  append(elements_, static_cast<std::uint32_t>(*day - kEpoch));
  ++count_;
}

void Array::addNull() {
  append(elements_, std::numeric_limits<std::uint32_t>::max());
  hasNull_ = true;
  ++count_;
}

std::string Array::bytes() const {
  std::string bytes;
  // Dimensions, whether NULL is among them, their type; then length and lowest index of the dimension.
  for (const std::uint32_t word : {count_ == 0 ? 0U : 1U, hasNull_ ? 1U : 0U, static_cast<std::uint32_t>(element_)})
    append(bytes, word);
  if (count_ == 0) return bytes;
  append(bytes, count_);
  append(bytes, std::uint32_t{1});
  return bytes + elements_;
}

Parameters& Parameters::operator<<(double number) {
  char text[32];
  return add(std::string(text, std::to_chars(std::begin(text), std::end(text), number).ptr), 0);
}

std::string Result::text(int row, int column) const {
  return {PQgetvalue(result_.get(), row, column), static_cast<std::size_t>(PQgetlength(result_.get(), row, column))};
}

std::int64_t Result::number(int row, int column) const {
  std::int64_t number = 0;
  const char* text = PQgetvalue(result_.get(), row, column);
  std::from_chars(text, text + PQgetlength(result_.get(), row, column), number);
  return number;
}

double Result::real(int row, int column) const {
  double number = 0;
  const char* text = PQgetvalue(result_.get(), row, column);
  std::from_chars(text, text + PQgetlength(result_.get(), row, column), number);  // "Infinity" too
  return number;
}

Connection::Connection(const std::string& url) : connection_(nullptr, PQfinish) {
  // What stands in the URL comes later and counts for more.
  const char* const names[] = {"connect_timeout", "fallback_application_name", "dbname", "client_encoding", nullptr};
  const char* const values[] = {"10", "tarvo sandbox", url.c_str(), "UTF8", nullptr};
  connection_.reset(PQconnectdbParams(names, values, /*expand_dbname=*/1));
  if (PQstatus(connection_.get()) != CONNECTION_OK) throw failure(nullptr);
  PQsetNoticeProcessor(
      connection_.get(), [](void*, const char*) {}, nullptr);
  if (PQserverVersion(connection_.get()) < kOldestServer)
    throw Error("the database server is older than PostgreSQL 14", "");
  const char* encoding = PQparameterStatus(connection_.get(), "server_encoding");
  if (encoding == nullptr || std::string_view(encoding) != "UTF8")
    throw Error("the database is not one of encoding UTF8", "");
  const Result settings(PQexec(connection_.get(), kSettings));
  if (PQresultStatus(settings.result_.get()) != PGRES_COMMAND_OK) throw failure(settings.result_.get());
}

Result Connection::run(const std::string& sql, const Parameters& parameters, bool raw) {
  const std::size_t count = parameters.values_.size();
  std::vector<const char*> values(count);
  std::vector<int> lengths(count);
  for (std::size_t i = 0; i < count; ++i) {
    values[i] = parameters.values_[i].c_str();
    lengths[i] = static_cast<int>(parameters.values_[i].size());
  }
  Result result(PQexecParams(connection_.get(), sql.c_str(), static_cast<int>(count), nullptr, values.data(),
                             lengths.data(), parameters.formats_.data(), raw ? 1 : 0));
  const ExecStatusType status = PQresultStatus(result.result_.get());
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) throw failure(result.result_.get());
  return result;
}

bool Connection::isReady() {
  // The last words of a server that ends come before the end itself.
  pollfd socket{PQsocket(connection_.get()), POLLIN, 0};
  while (PQstatus(connection_.get()) == CONNECTION_OK && ::poll(&socket, 1, 0) > 0)
    if (PQconsumeInput(connection_.get()) == 0) return false;
  return PQstatus(connection_.get()) == CONNECTION_OK && PQtransactionStatus(connection_.get()) == PQTRANS_IDLE;
}

Error Connection::failure(PGresult* result) const {
  const char* state = PQresultErrorField(result, PG_DIAG_SQLSTATE);
  return {trimmed(result == nullptr ? PQerrorMessage(connection_.get()) : PQresultErrorMessage(result)),
          state == nullptr ? "" : state};
}

Transaction::Transaction(Connection& connection, Kind kind) : connection_(connection) {
  connection_.run(kind == Writes ? "BEGIN ISOLATION LEVEL READ COMMITTED"
                                 : "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
}

Transaction::~Transaction() {
  if (!open_) return;
  try {
    connection_.run("ROLLBACK");
  } catch (const std::exception&) {  // the server has lost it with the connection
  }
}

void Transaction::commit() {
  connection_.run("COMMIT");
  open_ = false;
}

std::unique_ptr<Connection> Pool::take() {
  std::unique_ptr<Connection> connection;
  {
    std::unique_lock lock(mutex_);
    if (!freed_.wait_for(lock, kLongestWait, [&] { return inUse_ < most_; }))
      throw Error("no connection to the database got free", "");
    ++inUse_;
    if (!idle_.empty()) {
      connection = std::move(idle_.back());
      idle_.pop_back();
    }
  }
  try {
    if (connection == nullptr || !connection->isReady()) connection = std::make_unique<Connection>(url_);
  } catch (...) {
    giveBack(nullptr);
    throw;
  }
  return connection;
}

void Pool::giveBack(std::unique_ptr<Connection> connection) {
  const bool isReady = connection != nullptr && connection->isReady();
  const std::lock_guard lock(mutex_);
  --inUse_;
  if (isReady) idle_.push_back(std::move(connection));
  freed_.notify_one();
}

}  // namespace tarvo::sandbox::postgres
