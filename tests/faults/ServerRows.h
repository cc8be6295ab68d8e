#pragma once

#include <netdb.h>
#include <semaphore.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <regex>

#include "platform/foundation/Text.h"
#include "support/RawServer.h"
#include "support/Tls.h"

// What a server can do to the SDK. What becomes of it is read in the tables of docs/delivery.md.

namespace tarvo::faults {

using platform::concat;
using test::Connection;
using test::httpReply;
using Act = std::function<void(Connection&)>;

struct Behaviour {
  std::string what;
  Act act = {};      ///< from the beginning of each connection on; none: `reply` to what is asked of `endpoint`
  double speed = 1;  ///< of the monotonic clock: of the silence of 60 s nobody has to wait for the end
  int local = 0;     ///< with which connecting, if positive, or looking the name up fails
  std::string url = "http://127.0.0.1:PORT";
  int fixes = 2;
  std::string endpoint = "positions", reply = {};
  // The rest is of the document; the arrays by default and confirmed.
  std::string logged = {};  ///< the opening of a line; with ':' or '[' first, behind the name of the call
  std::array<std::string, 2> fate = {}, triesPerHour = {};
};
constexpr const char *kAcknowledged = "acknowledged", *kGivenUp = "**acknowledged**, no answer", *kStays = "stays",
                     *kWaits = "waits", *kStops = "**stops**";

/// What server and host tell each other.
struct Shared {
  sem_t isListening{};
  std::atomic<int> port{0}, asked[16]{};          ///< the latter by endpoint, since the behaviour began
  std::atomic<bool> isOn{false};                  ///< while it is not, the server is well
  std::array<std::atomic<bool>, 200> received{};  ///< by number, by a server that was well
};
inline Shared* shared = nullptr;

/// What can be asked, and the good answer.
struct Call {
  const char *endpoint, *good = R"({"success":true})";
};
inline constexpr Call kCalls[] = {
    {"users", R"({"success":true,"results":[{"uuid":"u-1","creation_date":"2024-06-15","secretkey":"s3cret"}]})"},
    {"positions", R"({"success":true,"last_prediction_id":0,"last_pasttrip_id":0,"last_poi_id":0})"},
    {"predictions",
     R"({"success":true,"prediction_id":8,"start_time":"s","arrival_time":"a","probability":1,"destination_lon":2.5,)"
     R"("destination_lat":48,"route":{"r":1},"destination_json":{"d":2},"start_name":"Home","arrival_name":"Work",)"
     R"("duration":12.5})"},
    {"pasttrips",
     R"({"success":true,"trips":[{"pasttrip_id":7,"departure_lat":48,"departure_lon":11,"arrival_lat":48,)"
     R"("arrival_lon":11,"start_time":"2024-06-15T10:00:00.000+0000","arrival_time":"","route":{"type":"LineString"}}]})"},
    {"pois", R"({"success":true,"pois":[{"poi_id":3,"lat":48,"lon":11,"point_geo_json":{},"zone_geo_json":{"z":1}}]})"},
    {"userconf", R"({"success":true,"results":[{"log_level":10}]})"},
    {"uplog", R"({"success":true,"results":"uploaded","file":"TarvoLog_2024-06-01_u_IOS.txt"})"},
    {"tokens"},
    {"tags/set"},
    {"tags/unset"},
    {"resetbackend"},
    {"resetgeoprofile"},
    {"subscriptions/register"},
    {"subscriptions/unregister"},
    {"elsewhere"}};
inline const std::string kGood = kCalls[1].good;

inline std::string repeated(std::string_view text, std::size_t times) {
  std::string all;
  for (std::size_t i = 0; i < times; ++i) all += text;
  return all;
}

enum Then { close, reset, silent };
/// Takes a byte of the request, or none, and does that.
inline Act takes(int bytes, Then then = close) {
  return [=](Connection& connection) {
    if (char byte; bytes == 1) connection.read(&byte, 1);
    if (then == reset) connection.resetOnClose();
  };
}
/// Reads the request, says this, then more and more while it is its turn, and then does that.
inline Act says(const std::string& bytes, Then then = close, const std::string& more = "", int pause = 0) {
  return [=](Connection& connection) {
    connection.readRequest();
    for (bool takes = connection.send(bytes) && !more.empty(); takes && shared->isOn; takes = connection.send(more))
      std::this_thread::sleep_for(std::chrono::milliseconds(pause));
    if (then == reset) connection.resetOnClose();
    if (then == silent) connection.waitForPeerToLeave();
  };
}
inline Act replies(int status, const std::string& body = "", const std::string& header = "") {
  return says(httpReply(status, body, "Connection: close\r\n" + header));
}
inline void drip(Connection& connection) {
  connection.readRequest();
  for (const char byte : httpReply(200, kGood)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    connection.send({byte});
  }
}
/// Sends everybody who does not ask for the login page on to this address.
inline Act redirects(int code, const std::string& address) {
  return [=](Connection& connection) {
    const std::string head = connection.readRequest();
    if (head.find("/positions ") == head.npos) --shared->asked[1];
    const auto to = std::regex_replace(address, std::regex("PORT"), std::to_string(shared->port));
    connection.send(head.find("/login ") != head.npos
                        ? httpReply(200, "<html>Welcome</html>")
                        : httpReply(code, "", "Connection: close\r\nLocation: " + to + "\r\n"));
  };
}
/// What the hosts trust, and the certificate of a server that is well.
struct Certificates {
  test::Trusted authority;
  test::Certificate server{"server", &authority, {-3600, 3600, "IP:127.0.0.1,DNS:localhost"}};
};
inline const Certificates* certificates = nullptr;

/// Answers over TLS whoever accepts this certificate.
inline Act secured(const test::Certificate::Terms& terms, bool byAuthority = true, int newest = TLS1_3_VERSION,
                   const std::string& reply = httpReply(200)) {
  const auto own =
      std::make_shared<test::Certificate>("server", byAuthority ? &certificates->authority : nullptr, terms);
  return [own, newest, reply](Connection& connection) {
    test::TlsConnection(connection, {*own, newest}).answerAll([&](const std::string&) { return reply; });
  };
}
/// 30 MB of zeros.
inline std::string packed() {
  std::string bytes(1 << 15, '\0');
  FILE* pipe = ::popen("head -c 30000000 /dev/zero | gzip", "r");
  bytes.resize(std::fread(bytes.data(), 1, bytes.size(), pipe));
  ::pclose(pipe);
  return bytes;
}

inline std::vector<Behaviour> transfers() {
  const std::string ok = "HTTP/1.1 200 OK\r\n", more = "HTTP/1.1 100 Continue\r\n\r\n",
                    chunks = ok + "Transfer-Encoding: chunked\r\n\r\n", good = httpReply(200, kGood),
                    longer = ok + "Content-Length: 99\r\n\r\n" + kGood, array = repeated("[", 100000),
                    away = "Connection: close\r\nLocation: http://other.invalid/\r\n",
                    elsewhere = "http://localhost:PORT/login", here = Behaviour().url,
                    name = "http://backend.test:PORT", tls = "https://127.0.0.1:PORT";
  using Terms = test::Certificate::Terms;
  std::vector<Behaviour> all = {
      {"No network", {}, 1, ENETUNREACH},
      {"No route to the host", {}, 1, EHOSTUNREACH},
      {"Nobody listens", {}, 1, ECONNREFUSED},
      {"The host's name is not known", {}, 1, EAI_NONAME, name},
      {"The resolver does not work", {}, 1, EAI_AGAIN, name},
      {"Closed when accepted", takes(0)},
      {"Reset when accepted", takes(0, reset)},
      {"Reset in the head of the request", takes(1, reset)},
      {"Reset in the body of the request", [](Connection& c) { c.readHead(), c.resetOnClose(); }},
      {"Reset after the request", says("", reset)},
      {"Closed after the request", says("")},
      {"Closed after status 100", says(more)},
      {"Status 101", says("HTTP/1.1 101 Switching\r\nUpgrade: x\r\n\r\n")},
      {"Reset in the status line", says("HTTP/1.1", reset)},
      {"Reset in the head of a 200", says(ok + "Server:", reset)},
      {"Reset in the body of a 200", says(longer, reset)},
      {"Body of a 200 shorter than announced", says(longer)},
      {"Chunks that break off", says(chunks + "9\r\n{\"succ")},
      {"Headers without end", says(ok, close, "X-More: " + std::string(1000, 'x') + "\r\n")},
      {"Takes the request and never answers", says("", silent), 100},
      {"Never reads", [](Connection&) { ::pause(); }, 100},
      {"Silent in the body of a 200", says(longer, silent), 100},
      {"A head without end, a byte a second", says(ok + "Server: ", close, "x", 10), 100},
      {"Silent in the body of a 401", says("HTTP/1.1 401 No\r\nContent-Length: 9\r\n\r\na", silent), 100},
      {"A body without end, a byte a second", says(ok + "Content-Length: 99999\r\n\r\n", close, "x", 20), 50},
      {"Status 100 each second, without end", says(more, close, more, 20), 50},
      {"A 200 that comes a byte a second", drip, 50, 0, here, 1},
      {"Body of a 200 longer than announced", says(good + "more")},
      {"Lines that end without a carriage return", says("HTTP/1.1 200 OK\nConnection: close\n\n" + kGood)},
      {"A line that is no HTTP", says("hello\r\n\r\n")},
      {"A banner of another protocol", says("220 mail ready\r\n" + std::string(999, '\0'))},
      {"A status line without a status", says("HTTP/1.1 abc\r\n\r\n" + kGood)},
      {"A version that nobody speaks", says("HTTP/3.7 200 OK\r\n\r\n")},
      {"A chunk without a length", says(chunks + "zz\r\n" + kGood)},
      {"A length below zero", says(ok + "Content-Length: -1\r\n\r\n" + kGood)},
      {"A header of 2 MB", says(ok + "X-More: " + std::string(2000000, 'x') + "\r\n\r\n")},
      {"A zero byte in a header", says(ok + std::string("X: a\0b\r\n\r\n", 11) + kGood)},
      {"Chunks without end", says(chunks, close, "10000\r\n" + std::string(0x10000, 'x') + "\r\n")},
      {"A length of 33 MiB", says(ok + "Content-Length: 34603008\r\n\r\n", silent)},
      {"200 without a body", replies(200)},
      {"200 with a page of HTML", replies(200, "<html>Welcome, please log in</html>", "Content-Type: text/html\r\n")},
      {"200 with half of the JSON", replies(200, kGood.substr(0, 40))},
      {"200 with JSON twice", replies(200, kGood + kGood)},
      {"200 with JSON in UTF-16", replies(200, std::string("\xff\xfe{\0", 4))},
      {"200 with text that is no UTF-8", replies(200, "{\"success\":true,\"text\":\"\xc3\x28\xff\"}")},
      {"200 with a number beyond all bounds", replies(200, R"({"success":true,"last_poi_id":1e400})")},
      {"200 with JSON 100,000 levels deep", replies(200, array + repeated("]", 100000))},
      {"200 with objects 100,000 levels deep", replies(200, repeated("{\"a\":", 100000) + "1" + repeated("}", 100000))},
      {"200 with 30 KB that unpack to 30 MB", replies(200, packed(), "Content-Encoding: gzip\r\n")},
      {"200 with null", replies(200, "null")},
      {"200 with an array", replies(200, "[1]")},
      {"200 with 9 MB of empty arrays", replies(200, "[" + repeated("[],", 3000000) + "[]]"), 1, 0, here, 1},
      {"200 whose \"success\" is false", replies(200, R"({"success":false})")},
      {"301 to a page of the same host", redirects(301, "/login")},
      {"302 to a login page of another host", redirects(302, elsewhere)},
      {"303 to a page of the same host", redirects(303, "/login")},
      {"307 to a page of the same host", redirects(307, "/login")},
      {"307 to another host", redirects(307, elsewhere)},
      {"308 to another host", redirects(308, elsewhere)},
      {"302 in a circle", redirects(302, here + "/again")},
      {"307 in a circle", redirects(307, here + "/api/v1/demo/positions")},
      {"302 to a file", redirects(302, "file:///etc/passwd")},
      {"302 from https to http", secured({}, true, TLS1_3_VERSION, httpReply(302, "", away)), 1, 0, tls},
      {"Reset in the head of a 503", says("HTTP/1.1 503 Busy\r\nServer:", reset)},
      {"A certificate that has expired", secured({-7200, -3600}), 1, 0, tls},
      {"One that is not valid yet, or a device whose clock is behind", secured({3600, 7200}), 1, 0, tls},
      {"A self-signed certificate", secured({}, false), 1, 0, tls},
      {"A certificate signed with SHA-1", secured({-3600, 3600, Terms().names, EVP_sha1()}), 1, 0, tls},
      {"The certificate of another host", secured({-3600, 3600, "DNS:b.invalid"}), 1, 0, "https://localhost:PORT"},
      {"TLS 1.1 at most", secured({}, true, TLS1_1_VERSION), 1, 0, tls},
      {"TLS 1.0 at most", secured({}, true, TLS1_VERSION), 1, 0, tls},
      {"Plain HTTP where TLS is spoken", [good](Connection& c) { c.send(good), c.readHead(); }, 1, 0, tls},
      {"Closed in the handshake", takes(1), 1, 0, tls},
      {"Status 429 with \"Retry-After: 60\"", replies(429, "", "Retry-After: 60\r\n")},
      {"Status 503 with \"Retry-After: 60\"", replies(503, "", "Retry-After: 60\r\n")}};
  for (const int number : {201, 204, 206, 302, 304, 400, 401, 403, 404, 408, 413, 429, 500, 502, 503, 504, 511})
    all.push_back({concat("Status ", number), replies(number)});
  return all;
}

/// The answer with that field missing, of another type, null, huge, or there twice.
inline std::string answerWith(std::string answer, const std::string& field, std::size_t form) {
  const std::string key = concat("\"", field, "\":");
  const auto begin = answer.find(key) + key.size();
  auto end = begin;
  for (int depth = 0; depth > 0 || (answer[end] != ',' && answer[end] != '}'); ++end)
    depth += answer[end] == '[' || answer[end] == '{' ? 1 : answer[end] == ']' || answer[end] == '}' ? -1 : 0;
  const std::string value = answer.substr(begin, end - begin);
  const char* other = value[0] == '"' ? "[7]" : value[0] == '[' ? "[1]" : "\"other\"";
  std::string huge = "1e300";
  if (value[0] == '"') huge = '"' + std::string(1 << 20, 'x') + '"';
  if (value[0] == '[') huge = "[" + repeated(value.substr(1, value.size() - 2) + ",", 30) + value.substr(1);
  if (value[0] == '{') huge = "{" + repeated("\"more\":[0,1],", 10000) + value.substr(1);
  const std::string forms[] = {{}, other, "null", huge, value + "," + key + other};
  if (form == 0) return answer.replace(answer.find(key) + 1, 1, "_");
  return answer.replace(begin, end - begin, forms[form]);
}

/// All that a server can do, and what the document tells of it.
inline std::vector<Behaviour> behaviours() {
  std::vector<Behaviour> all = transfers();
  const auto add = [&](const Call& call, const std::string& key, const std::string& form, const std::string& told,
                       const std::string& reply) {
    Behaviour& row = all.emplace_back(Behaviour{concat(call.endpoint, " ", key, form)});
    row.endpoint = call.endpoint;
    row.reply = reply;
    row.fate[0] = told == kStops ? kStops : told == "no user" ? kStays : kAcknowledged;
    const bool isUser = row.endpoint == "users" && told != "goes on";
    row.fate[1] = isUser || row.what.starts_with("positions success") ? kStays : kAcknowledged;
    if (told == kStops) row.logged = concat("the backend's \"", key, "\" is no ");
    if (row.what == "pasttrips pasttrip_id missing") row.logged = "no past trip has an identifier";
  };
  std::ifstream document(TARVO_SOURCE_DIR "/docs/delivery.md");
  std::vector<std::string> titles;
  for (std::string line; std::getline(document, line);) {
    if (!line.starts_with("| ")) continue;
    std::erase(line, '`');
    std::vector<std::string> cells;
    for (std::size_t at = 1, end; (end = line.find(" |", at)) != line.npos; at = end + 2)
      cells.push_back(line.substr(at + 1, end - at - 1));
    const bool isTitle = cells[0] == "server" || cells[0] == "answer to";
    if (isTitle) titles = cells;
    for (const Call& call : kCalls)
      for (std::size_t i = 2; cells[0] == call.endpoint && i < cells.size(); ++i)
        add(call, cells[1], " " + titles[i], cells[i], httpReply(200, answerWith(call.good, cells[1], i - 2)));
    if (isTitle || titles[0] != "server") continue;
    const std::string names = "; " + cells[0] + ";";
    auto unknown = std::ranges::count(names, ';') - 1;
    for (Behaviour& row : all)
      if (names.find("; " + row.what + ";") != names.npos) {
        row.logged = cells[1];
        row.fate = {cells[2], cells[3]};
        row.triesPerHour = {cells[4], cells[5]};
        --unknown;
      }
    if (unknown != 0) throw std::runtime_error("only docs/delivery.md knows one of " + cells[0]);
  }
  for (const Behaviour& row : all)
    if (row.fate[0].empty()) throw std::runtime_error("docs/delivery.md lacks " + row.what);
  for (const Call& call : kCalls) {
    if (call.endpoint == kCalls[1].endpoint || call.endpoint == std::end(kCalls)[-1].endpoint) continue;
    const char* told = call.endpoint == kCalls[0].endpoint ? "no user" : "goes on";
    add(call, "", "no answer", told, "");
    add(call, "", "status 500", told, httpReply(500));
    add(call, "", "no JSON", told, httpReply(200, "nonsense"));
  }
  return all;
}

}  // namespace tarvo::faults
