#pragma once

#include <netdb.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/foundation/Text.h"
#include "support/RawServer.h"
#include "support/Tls.h"

// What a server can do to the SDK, and what becomes of a batch of positions then: the rows of docs/delivery.md.

namespace tarvo::faults {

using platform::concat;
using test::Connection;
using test::httpReply;
using Act = std::function<void(Connection&)>;

/// What becomes of a batch.
enum Fate {
  acknowledged,  ///< as after a good answer
  givenUp,       ///< acknowledged although nobody has answered; the ledger names its positions
  stays,         ///< goes up again
  waits,         ///< neither, for as long as the server likes; goes up again after 180 s
  stops,         ///< and the process with it; the next one goes on with it
};

/// How long the next try waits with `DeliveryOptions::confirmed`.
enum Wait { growing, longest, minute, silence };

struct Row {
  Fate byDefault, confirmed;
  std::string logged;  ///< the opening of a line; with ':' first, behind the name of the call
  Wait wait = growing;
  double speed = 1;  ///< of the monotonic clock: of the silence of 60 s nobody has to wait for the end
  int local = 0;     ///< with which connecting, if positive, or looking the name up fails
  std::string url = "http://127.0.0.1:PORT";
  std::string what = {};
  Act act = {};  ///< from the beginning of each connection on; none: `reply` to what is asked of `endpoint`
  std::string endpoint = "positions", reply = {};
  bool alone = false;  ///< changes what the rows after it would meet
  int fixes = 2;
};

/// What the processes of a life tell each other.
struct Shared {
  std::atomic<int> port{0}, row{-1}, next{0}, faults{0};  ///< `row`: -1 while the server is well; `next`: in the plan
  std::atomic<int> asked[16]{};                           ///< in this row, by endpoint
  std::atomic<int> received[2048]{};                      ///< by number, by a server that was well
  std::atomic<std::int64_t> lost{0};                      ///< acknowledged by one that was not
  char fatal[200]{};                                      ///< the line with which a process has stopped
};
inline Shared* shared = nullptr;
/// What can be asked, the good answer, and for each of its fields what becomes of a value that is missing, of another
/// type, null, huge, there twice: the SDK goes on (-), Stops, or has no User yet.
struct Call {
  const char *endpoint, *good = R"({"success":true})", *fields = "";
};
inline constexpr Call kCalls[] = {
    {"users", R"({"success":true,"results":[{"uuid":"u-1","creation_date":"2024-06-15","secretkey":"s3cret"}]})",
     "success USSSS results UUU-U uuid USSUS creation_date USS-S secretkey U--U-"},
    {"positions", R"({"success":true,"last_prediction_id":0,"last_pasttrip_id":0,"last_poi_id":0})",
     "success -SSSS last_prediction_id -SSSS last_pasttrip_id -SSSS last_poi_id -SSSS"},
    {"predictions",
     R"({"success":true,"prediction_id":8,"start_time":"s","arrival_time":"a","probability":1,"destination_lon":2.5,)"
     R"("destination_lat":48,"route":{"r":1},"destination_json":{"d":2},"start_name":"Home","arrival_name":"Work",)"
     R"("duration":12.5})",
     "success -SSSS prediction_id -SSSS start_time -SS-S arrival_time -SS-S probability -SS-S destination_lon -SS-S "
     "destination_lat -SS-S route -SS-S destination_json -SS-S start_name -SS-S arrival_name -SS-S duration -SS-S"},
    {"pasttrips",
     R"({"success":true,"trips":[{"pasttrip_id":7,"departure_lat":48,"departure_lon":11,"arrival_lat":48,)"
     R"("arrival_lon":11,"start_time":"2024-06-15T10:00:00.000+0000","route":{"type":"LineString"}}]})",
     "success -SSSS trips -SS-S pasttrip_id SSSSS departure_lat ----- start_time ----- route -----"},
    {"pois", R"({"success":true,"pois":[{"poi_id":3,"lat":48,"lon":11,"point_geo_json":{},"zone_geo_json":{"z":1}}]})",
     "success -SSSS pois -SS-S poi_id ----- lat ----- zone_geo_json -----"},
    {"userconf", R"({"success":true,"results":[{"log_level":10}]})", "success -SSSS results ----- log_level -----"},
    {"uplog", R"({"success":true,"results":"uploaded","file":"TarvoLog_2024-06-01_u_IOS.txt"})",
     "success ----- results ----- file -----"},
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
/// Takes so many bytes (kHead: the head) of the request and does that.
constexpr int kHead = 1000;
inline Act takes(int bytes, Then then = close) {
  return [=](Connection& connection) {
    char byte;
    bytes == kHead ? void(connection.readHead()) : void(bytes > 0 && connection.read(&byte, 1));
    if (then == reset) connection.resetOnClose();
  };
}
/// Reads the request, says this, and then that.
inline Act says(const std::string& bytes, Then then = close) {
  return [=](Connection& connection) {
    connection.readRequest();
    connection.send(bytes);
    if (then == reset) connection.resetOnClose();
    if (then == silent) connection.waitForPeerToLeave();
  };
}
inline Act status(int code, const std::string& header = "") {
  return says(httpReply(code, "", "Connection: close\r\n" + header));
}
inline Act body(const std::string& text, const std::string& header = "") {
  return says(httpReply(200, text, "Connection: close\r\n" + header));
}
/// Says this, and more and more as long as it is this row's turn.
inline Act goesOn(const std::string& opening, const std::string& more, int pause = 0) {
  return [=](Connection& connection) {
    connection.readRequest();
    for (bool takes = connection.send(opening); takes && shared->row >= 0; takes = connection.send(more))
      std::this_thread::sleep_for(std::chrono::milliseconds(pause));
  };
}
inline void drip(Connection& connection) {
  connection.readRequest();
  for (const char byte : httpReply(200, kGood)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    connection.send({byte});
  }
}
/// "HERE" stands for the address that was asked, "ELSE" for the same server under another name.
inline Act redirects(int code, const std::string& location) {
  return [=](Connection& connection) {
    const std::string head = connection.readHead(), port = ":" + std::to_string(shared->port);
    connection.readBody(head);
    if (head.find("/positions ") == head.npos) --shared->asked[1];
    if (location.find("/login") != location.npos && head.find("/login") != head.npos)
      return void(connection.send(httpReply(200, "<html>Welcome</html>")));
    std::string to = location;
    if (to.starts_with("HERE")) to = "http://127.0.0.1" + port + to.substr(4);
    if (to.starts_with("ELSE")) to = "http://localhost" + port + to.substr(4);
    connection.send(httpReply(code, "", "Connection: close\r\nLocation: " + to + "\r\n"));
  };
}
/// What the hosts trust, and the certificate of a server that is well.
struct Certificates {
  test::Trusted authority;
  test::Certificate server{"server", &authority, {-3600, 3600, "IP:127.0.0.1,DNS:localhost"}};
};
inline const Certificates& certificates() {
  static const auto* all = new Certificates;
  return *all;
}
/// Answers over TLS whoever accepts this certificate.
inline Act secured(const test::Certificate::Terms& terms, bool byAuthority = true, int newest = TLS1_3_VERSION,
                   const std::string& reply = httpReply(200)) {
  const auto own =
      std::make_shared<test::Certificate>("server", byAuthority ? &certificates().authority : nullptr, terms);
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

inline std::vector<Row> rowsOfTransfers() {
  const std::string error = ":[error] :Optional(", lost = error + "\"The network connection was lost.",
                    unknown = error + "\"A server with the specified hostname could not be found.",
                    connect = error + "\"Could not connect to the server.", late = error + "\"The request timed out.",
                    secure = error + "\"An SSL error has occurred",
                    code = ": httpstatus : ", parse = ":[error] : ", data = "[net] [succes] Data:";
  const std::string ok = "HTTP/1.1 200 OK\r\n", length = "Content-Length: ", more = "HTTP/1.1 100 Continue\r\n\r\n",
                    chunks = ok + "Transfer-Encoding: chunked\r\n\r\n", good = httpReply(200, kGood),
                    longer = ok + length + "99\r\n\r\n" + kGood, array = repeated("[", 100000),
                    away = "Connection: close\r\nLocation: http://other.invalid/\r\n";
  const std::string name = "http://backend.test:PORT", tls = "https://127.0.0.1:PORT", other = "https://localhost:PORT";
  using Terms = test::Certificate::Terms;
  std::vector<Row> rows;
  const auto add = [&rows](Row row, const std::vector<std::pair<std::string, Act>>& alike) {
    row.alone = row.local < 0;
    for (const auto& [what, act] : alike) row.what = what, row.act = act, rows.push_back(row);
  };
  add({givenUp, stays, error + "\"The Internet connection appears to be offline.", growing, 1, ENETUNREACH},
      {{"No network", {}}});
  add({givenUp, stays, connect, growing, 1, EHOSTUNREACH}, {{"No route to the host", {}}});
  add({givenUp, stays, connect, growing, 1, ECONNREFUSED}, {{"Nobody listens", {}}});
  add({givenUp, stays, unknown, growing, 1, EAI_NONAME, name}, {{"The host's name is not known", {}}});
  add({givenUp, stays, unknown, growing, 1, EAI_AGAIN, name}, {{"The resolver does not work", {}}});
  add({givenUp, stays, lost}, {{"Reset when accepted", takes(0, reset)},
                               {"Closed when accepted", takes(0)},
                               {"Reset in the head of the request", takes(1, reset)},
                               {"Reset in the body of the request", takes(kHead, reset)},
                               {"Reset after the request", says("", reset)},
                               {"Closed after the request", says("")},
                               {"Closed after status 100", says(more)},
                               {"Status 101", says("HTTP/1.1 101 Switching\r\nUpgrade: x\r\n\r\n")},
                               {"Reset in the status line", says("HTTP/1.1", reset)},
                               {"Reset in the head of a 200", says(ok + "Server:", reset)},
                               {"Reset in the body of a 200", says(longer, reset)},
                               {"Body of a 200 shorter than announced", says(longer)},
                               {"Chunks that break off", says(chunks + "9\r\n{\"succ")},
                               {"Headers without end", goesOn(ok, "X-More: " + std::string(1000, 'x') + "\r\n")}});
  add({givenUp, stays, late, silence, 100},
      {{"Takes the request and never answers", says("", silent)},
       {"Never reads", [](Connection&) { ::pause(); }},
       {"Silent in the body of a 200", says(longer, silent)},
       {"A head without end, a byte a second", goesOn(ok + "Server: ", "x", 10)}});
  add({stays, stays, code + "401", longest, 100},
      {{"Silent in the body of a 401", says("HTTP/1.1 401 No\r\nContent-Length: 9\r\n\r\na", silent)}});
  add({waits, waits, "", silence, 100},
      {{"A body without end, a byte a second", goesOn(ok + "Content-Length: 99999\r\n\r\n", "x", 10)},
       {"Status 100 each second, without end", goesOn(more, more, 10)}});
  add({acknowledged, acknowledged, code + "200", growing, 100}, {{"A 200 that comes a byte a second", drip}});
  add({acknowledged, acknowledged, code + "200"},
      {{"Body of a 200 longer than announced", says(good + "more")},
       {"Lines that end without a carriage return", says("HTTP/1.1 200 OK\nConnection: close\n\n" + kGood)}});
  add({givenUp, stays, error + "\"There was a bad response from the server."},
      {{"A line that is no HTTP", says("hello\r\n\r\n")},
       {"A banner of another protocol", says("220 mail ready\r\n" + std::string(999, '\0'))},
       {"A status line without a status", says("HTTP/1.1 abc\r\n\r\n" + kGood)},
       {"A version that nobody speaks", says("HTTP/3.7 200 OK\r\n\r\n")}});
  add({givenUp, stays, error}, {{"A chunk without a length", says(chunks + "zz\r\n" + kGood)},
                                {"A length below zero", says(ok + length + "-1\r\n\r\n" + kGood)},
                                {"A header of 2 MB", says(ok + "X-More: " + std::string(2000000, 'x') + "\r\n\r\n")},
                                {"A zero byte in a header", says(ok + std::string("X: a\0b\r\n\r\n", 11) + kGood)}});
  add({givenUp, stays, error + "\"resource exceeds maximum size"},
      {{"Chunks without end", goesOn(chunks, "10000\r\n" + std::string(0x10000, 'x') + "\r\n")},
       {"A length of 33 MiB", says(ok + length + "34603008\r\n\r\n", silent)}});
  add({acknowledged, stays, data + "nil"}, {{"200 without a body", body("")}});
  add({acknowledged, stays, parse},
      {{"200 with a page of HTML", body("<html>Welcome, please log in</html>", "Content-Type: text/html\r\n")},
       {"200 with half of the JSON", body(kGood.substr(0, 40))},
       {"200 with JSON twice", body(kGood + kGood)},
       {"200 with JSON in UTF-16", body(std::string("\xff\xfe{\0", 4))},
       {"200 with text that is no UTF-8", body("{\"success\":true,\"text\":\"\xc3\x28\xff\"}")},
       {"200 with a number beyond all bounds", body(R"({"success":true,"last_poi_id":1e400})")},
       {"200 with JSON 100,000 levels deep", body(array + repeated("]", 100000))},
       {"200 with objects 100,000 levels deep", body(repeated("{\"a\":", 100000) + "1" + repeated("}", 100000))},
       {"200 with 30 KB that unpack to 30 MB", body(packed(), "Content-Encoding: gzip\r\n")}});
  add({acknowledged, stays, data + "Optional("}, {{"200 with null", body("null")}, {"200 with an array", body("[1]")}});
  add({acknowledged, stays, data + "Optional("},
      {{"200 with 9 MB of empty arrays", body("[" + repeated("[],", 3000000) + "[]]")}});
  rows.back().fixes = 1;  // takes a second each
  add({acknowledged, stays, "[net] [succes] jsonData:"},
      {{"200 whose \"success\" is false", body(R"({"success":false})")}});
  add({acknowledged, stays, code + "200"}, {{"301 to a page of the same host", redirects(301, "/login")},
                                            {"302 to a login page of another host", redirects(302, "ELSE/login")},
                                            {"303 to a page of the same host", redirects(303, "/login")},
                                            {"307 to a page of the same host", redirects(307, "/login")}});
  add({stays, stays, code + "307"}, {{"307 to another host", redirects(307, "ELSE/login")}});
  add({stays, stays, code + "308"}, {{"308 to another host", redirects(308, "ELSE/login")}});
  add({stays, stays, error + "\"too many HTTP redirects"},
      {{"302 in a circle", redirects(302, "HERE/again")},
       {"307 in a circle", redirects(307, "HERE/api/v1/demo/positions")}});
  add({stays, stays, error + "\"unsupported URL"}, {{"302 to a file", redirects(302, "file:///etc/passwd")}});
  add({stays, stays, secure, growing, 1, 0, tls},
      {{"302 from https to http", secured({}, true, TLS1_3_VERSION, httpReply(302, "", away))}});
  add({stays, stays, code + "503"}, {{"Reset in the head of a 503", says("HTTP/1.1 503 Busy\r\nServer:", reset)}});
  for (const int number : {201, 204, 206, 302, 304, 400, 401, 403, 404, 408, 413, 429, 500, 502, 503, 504, 511})
    add({stays, stays, code + std::to_string(number), number == 401 || number == 403 ? longest : growing},
        {{"Status " + std::to_string(number), status(number)}});
  for (const int number : {429, 503})
    add({stays, stays, code + std::to_string(number), minute},
        {{concat("Status ", number, " with \"Retry-After: 60\""), status(number, "Retry-After: 60\r\n")}});
  const std::string untrusted = error + "\"The certificate for this server is invalid.";
  add({givenUp, stays, untrusted, growing, 1, 0, tls},
      {{"A certificate that has expired", secured({-7200, -3600})},
       {"One that is not valid yet, or a device whose clock is behind", secured({3600, 7200})},
       {"A self-signed certificate", secured({}, false)},
       {"A certificate signed with SHA-1", secured({-3600, 3600, Terms().names, EVP_sha1()})}});
  add({givenUp, stays, untrusted, growing, 1, 0, other},
      {{"The certificate of another host", secured({-3600, 3600, "DNS:backend.invalid"})}});
  add({givenUp, stays, secure, growing, 1, 0, tls},
      {{"TLS 1.1 at most", secured({}, true, TLS1_1_VERSION)},
       {"TLS 1.0 at most", secured({}, true, TLS1_VERSION)},
       {"Plain HTTP where TLS is spoken", [good](Connection& c) { c.send(good), c.readHead(); }},
       {"Closed in the handshake", takes(1)}});
  return rows;
}

inline constexpr const char* kForms[] = {"missing", "another type", "null", "huge", "twice"};

/// The answer with that form of that field.
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

/// Each field of each answer in each wrong form, and each call without a useful answer.
inline void addRowsOfAnswers(std::vector<Row>& rows) {
  for (const auto& [endpoint, good, fields] : kCalls) {
    const auto add = [&](const std::string& key, const char* form, char fate, const std::string& reply) {
      const std::string name = concat(endpoint, " ", key, key.empty() ? "" : " ", form);
      Row row{fate == 'S' ? stops : fate == 'U' ? stays : acknowledged, acknowledged, ""};
      if (name.starts_with("positions success") || (name.starts_with("users") && fate != '-')) row.confirmed = stays;
      if (fate == 'S') row.logged = concat("the backend's \"", key, "\" is no ");
      if (name == "pasttrips pasttrip_id missing") row.logged = "no past trip has an identifier";
      row.what = name;
      row.endpoint = endpoint;
      row.reply = reply;
      row.alone = (name.starts_with("users") && key != "success" && !key.empty()) || key == "pasttrip_id";
      rows.push_back(row);
    };
    std::istringstream words(fields);
    for (std::string key, fates; words >> key >> fates;)
      for (std::size_t form = 0; form < std::size(kForms); ++form)
        add(key, kForms[form], fates[form], httpReply(200, answerWith(good, key, form)));
    const char fate = std::string_view(endpoint) == "users" ? 'U' : '-';
    if (endpoint == kCalls[1].endpoint || endpoint == std::end(kCalls)[-1].endpoint) continue;
    add("", "no answer", fate, "");
    add("", "status 500", fate, httpReply(500));
    add("", "no JSON", fate, httpReply(200, "nonsense"));
  }
}

inline const std::vector<Row>& rows() {
  static const auto* all = [] {
    auto* made = new std::vector<Row>(rowsOfTransfers());
    addRowsOfAnswers(*made);
    return made;
  }();
  return *all;
}

}  // namespace tarvo::faults
