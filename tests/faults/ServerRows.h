#pragma once

#include <netdb.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/RawServer.h"
#include "support/Tls.h"

// What a server can do to the SDK, and what becomes of a batch of positions then: the rows of docs/delivery.md.

namespace tarvo::faults {

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
  std::string what;
  Act act;  ///< from the beginning of each connection on; none: `reply` to what is asked of `endpoint`
  Fate byDefault, confirmed;
  std::string logged;  ///< the opening of a line; with ':' first, behind the name of the call
  Wait wait = growing;
  double speed = 1;  ///< of the monotonic clock: of the silence of 60 s nobody has to wait for the end
  int local = 0;     ///< with which connecting, if positive, or looking the name up fails
  const char* url = "http://127.0.0.1:PORT";
  std::string endpoint = "positions", reply = {}, field = {}, form = {};
};

// Of the server's process.
inline std::atomic<bool>* serverIsWell = nullptr;  ///< acts without an end listen to it
inline std::atomic<int>* timesAsked = nullptr;     ///< for positions: connections, as far as acts do not know better

enum Then { close, reset, silent };
inline void finish(Connection& connection, Then then) {
  if (then == reset) connection.resetOnClose();
  if (then == silent) connection.waitForPeerToLeave();
}
/// Reads the request, says this, and then that.
inline Act says(const std::string& bytes, Then then = close) {
  return [bytes, then](Connection& connection) {
    connection.readRequest();
    connection.send(bytes);
    finish(connection, then);
  };
}
inline Act status(int code, const std::string& header = "") {
  return says(httpReply(code, "", "Connection: close\r\n" + header));
}
inline Act body(const std::string& text, const std::string& header = "") {
  return says(httpReply(200, text, "Connection: close\r\n" + header));
}
inline Act endless(const std::string& opening, const std::string& more, int pauseInMilliseconds = 0) {
  return [=](Connection& connection) {
    connection.readRequest();
    for (bool takes = connection.send(opening); takes && !*serverIsWell; takes = connection.send(more))
      if (pauseInMilliseconds > 0) std::this_thread::sleep_for(std::chrono::milliseconds(pauseInMilliseconds));
  };
}
/// "HERE" stands for the address that was asked, "ELSE" for the same server under another name.
inline Act redirects(int code, const std::string& location) {
  return [=](Connection& connection) {
    const std::string head = connection.readHead(), port = head.substr(head.find("127.0.0.1:") + 10, 5);
    connection.readBody(head);
    if (head.find("/positions ") == head.npos) --*timesAsked;
    if (location.find("/login") != location.npos && head.find("/login") != head.npos)
      return void(connection.send(httpReply(200, "<html>Welcome</html>")));
    std::string to = location;
    for (const auto& [name, text] : {std::pair("HERE", "http://127.0.0.1:"), {"ELSE", "http://localhost:"}})
      if (to.starts_with(name)) to = text + port.substr(0, port.find('\r')) + to.substr(4);
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
inline std::string repeated(std::string_view text, std::size_t times) {
  std::string all;
  for (std::size_t i = 0; i < times; ++i) all += text;
  return all;
}

inline const std::string kGood = R"({"success":true,"last_prediction_id":0,"last_pasttrip_id":0,"last_poi_id":0})";
inline const std::string kOk = "HTTP/1.1 200 OK\r\n",
                         kLength = "Content-Length: ", kChunks = "Transfer-Encoding: chunked\r\n\r\n";
inline const std::string kLong = kLength + std::to_string(kGood.size() + 9) + "\r\n\r\n" + kGood;

inline std::vector<Row> rowsOfTransfers() {
  const auto error = [](const char* text) { return ":[error] :Optional(\"" + std::string(text); };
  const std::string offline = error("The Internet connection appears to be offline."),
                    unknown = error("A server with the specified hostname could not be found."),
                    connect = error("Could not connect to the server."),
                    lost = error("The network connection was lost."), late = error("The request timed out."),
                    bad = error("There was a bad response from the server."),
                    tooLong = error("resource exceeds maximum size"), circle = error("too many HTTP redirects"),
                    secure = error("An SSL error has occurred"),
                    untrusted = error("The certificate for this server is invalid."),
                    parse = ":[error] : ", ok = ": httpstatus : 200", empty = "[net] [succes] Data:nil",
                    data = "[net] [succes] Data:Optional(", broken = ":[error] :Optional(";
  const auto code = [](int status) { return ": httpstatus : " + std::to_string(status); };
  const char *name = "http://backend.test:PORT", *tls = "https://127.0.0.1:PORT", *other = "https://localhost:PORT";
  const std::string chunk = "10000\r\n" + std::string(0x10000, 'x') + "\r\n", goOn = "HTTP/1.1 100 Continue\r\n\r\n",
                    away = "Connection: close\r\nLocation: http://other.invalid/\r\n";
  using Terms = test::Certificate::Terms;
  std::vector<Row> rows = {
      {"No network", {}, givenUp, stays, offline, growing, 1, ENETUNREACH},
      {"No route to the host", {}, givenUp, stays, connect, growing, 1, EHOSTUNREACH},
      {"Nobody listens", {}, givenUp, stays, connect, growing, 1, ECONNREFUSED},
      {"The host's name is not known", {}, givenUp, stays, unknown, growing, 1, EAI_NONAME, name},
      {"The resolver does not work", {}, givenUp, stays, unknown, growing, 1, EAI_AGAIN, name},
      // The connection ends.
      {"Reset when accepted", [](Connection& c) { c.resetOnClose(); }, givenUp, stays, lost},
      {"Closed when accepted", [](Connection&) {}, givenUp, stays, lost},
      {"Reset in the head of the request",
       [](Connection& c) {
         char byte;
         c.read(&byte, 1);
         c.resetOnClose();
       },
       givenUp, stays, lost},
      {"Reset in the body of the request",
       [](Connection& c) {
         c.readHead();
         c.resetOnClose();
       },
       givenUp, stays, lost},
      {"Reset after the request", says("", reset), givenUp, stays, lost},
      {"Closed after the request", says(""), givenUp, stays, lost},
      {"Closed after status 100", says(goOn), givenUp, stays, lost},
      {"Reset in the status line", says("HTTP/1.1", reset), givenUp, stays, lost},
      {"Reset in the head of a 200", says(kOk + "Server:", reset), givenUp, stays, lost},
      {"Reset in the body of a 200", says(kOk + kLong, reset), givenUp, stays, lost},
      {"Body of a 200 shorter than announced", says(kOk + kLong), givenUp, stays, lost},
      {"Body of a 200 longer than announced", says(httpReply(200, kGood) + "more"), acknowledged, acknowledged, ok},
      {"Reset in the head of a 503", says("HTTP/1.1 503 Busy\r\nServer:", reset), stays, stays, code(503)},
      {"Reset in the body of a 500", says("HTTP/1.1 500 Oops\r\nContent-Length: 9\r\n\r\nabc", reset), stays, stays,
       code(500)},
      // Silence.
      {"Takes the request and never answers", says("", silent), givenUp, stays, late, silence, 100},
      {"Never reads", [](Connection&) { ::pause(); },
       givenUp, stays, late, silence, 100},
      {"Silent in the body of a 200", says(kOk + kLong, silent), givenUp, stays, late, silence, 100},
      {"Silent in the body of a 401", says("HTTP/1.1 401 No\r\nContent-Length: 9\r\n\r\na", silent), stays, stays,
       code(401), longest, 100},
      {"A 200 that comes a byte a second",
       [](Connection& c) {
         c.readRequest();
         for (const char byte : httpReply(200, kGood)) {
           std::this_thread::sleep_for(std::chrono::milliseconds(10));
           c.send({byte});
         }
       },
       acknowledged, acknowledged, ok, growing, 100},
      {"A body without end, a byte a second",
       endless(kOk + "Content-Length: 99999\r\n\r\n", "x", 20), waits, waits, "", silence, 50},
      {"A head without end, a byte a second", endless(kOk + "Server: ", "x", 10), givenUp, stays, late, silence, 100},
      {"Status 100 each second, without end", endless(goOn, goOn, 20), waits, waits, "", silence, 50},
      // No HTTP, or more than anybody needs.
      {"A line that is no HTTP", says("hello\r\n\r\n"), givenUp, stays, bad},
      {"A banner of another protocol", says("220 mail ready\r\n" + std::string(999, '\0')), givenUp, stays, bad},
      {"A status line without a status", says("HTTP/1.1 abc\r\n\r\n" + kGood), givenUp, stays, bad},
      {"A version that nobody speaks", says("HTTP/3.7 200 OK\r\n\r\n"), givenUp, stays, bad},
      {"Status 101", says("HTTP/1.1 101 Switching\r\nUpgrade: x\r\n\r\n"), givenUp, stays, lost},
      {"Lines that end without a carriage return",
       says("HTTP/1.1 200 OK\nConnection: close\n\n" + kGood), acknowledged, acknowledged, ok},
      {"A chunk without a length", says(kOk + kChunks + "zz\r\n" + kGood), givenUp, stays, broken},
      {"Chunks that break off", says(kOk + kChunks + "9\r\n{\"succ"), givenUp, stays, lost},
      {"Chunks without end", endless(kOk + kChunks, chunk), givenUp, stays, tooLong},
      {"A length below zero", says(kOk + kLength + "-1\r\n\r\n" + kGood), givenUp, stays, broken},
      {"A length of 33 MiB", says(kOk + kLength + "34603008\r\n\r\n", silent), givenUp, stays, tooLong},
      {"Headers without end", endless(kOk, "X-More: " + std::string(1000, 'x') + "\r\n"), givenUp, stays, lost},
      {"A header of 2 MB", says(kOk + "X-More: " + std::string(2000000, 'x') + "\r\n\r\n"), givenUp, stays, broken},
      {"A zero byte in a header",
       says(kOk + "X-More: a" + std::string(1, '\0') + "b\r\n\r\n" + kGood), givenUp, stays, broken},
      // Status 200.
      {"200 without a body", body(""), acknowledged, stays, empty},
      {"200 with a page of HTML",
       body("<html>Welcome, please log in</html>", "Content-Type: text/html\r\n"), acknowledged, stays, parse},
      {"200 with half of the JSON", body(kGood.substr(0, 40)), acknowledged, stays, parse},
      {"200 with JSON twice", body(kGood + kGood), acknowledged, stays, parse},
      {"200 with JSON in UTF-16", body("\xff\xfe{\0}" + std::string(1, '\0')), acknowledged, stays, parse},
      {"200 with text that is no UTF-8",
       body("{\"success\":true,\"text\":\"\xc3\x28\xff\"}"), acknowledged, stays, parse},
      {"200 with a number beyond all bounds",
       body(R"({"success":true,"last_poi_id":1e400})"), acknowledged, stays, parse},
      {"200 with JSON 100,000 levels deep",
       body(repeated("[", 100000) + repeated("]", 100000)), acknowledged, stays, parse},
      {"200 with objects 100,000 levels deep",
       body(repeated("{\"a\":", 100000) + "1" + repeated("}", 100000)), acknowledged, stays, parse},
      {"200 with 9 MB of empty arrays", body("[" + repeated("[],", 3000000) + "[]]"), acknowledged, stays, data},
      {"200 with 30 KB that unpack to 30 MB", 
       [](Connection& c) {
         std::string packed(1 << 15, '\0');
         const auto close = [](FILE* pipe) { ::pclose(pipe); };
         const std::unique_ptr<FILE, decltype(close)> pipe(::popen("head -c 30000000 /dev/zero | gzip", "r"), close);
         packed.resize(std::fread(packed.data(), 1, packed.size(), pipe.get()));
         body(packed, "Content-Encoding: gzip\r\n")(c);
       },
       acknowledged, stays, parse},
      {"200 with null", body("null"), acknowledged, stays, "[net] [succes] Data:Optional(4 bytes)"},
      {"200 with an array", body("[1]"), acknowledged, stays, "[net] [succes] Data:Optional(3 bytes)"},
      {"200 whose \"success\" is false", body(R"({"success":false})"), acknowledged, stays, "[net] [succes] jsonData:"},
      // Redirects.
      {"301 to a page of the same host", redirects(301, "/login"), acknowledged, stays, ok},
      {"302 to a login page of another host", redirects(302, "ELSE/login"), acknowledged, stays, ok},
      {"303 to a page of the same host", redirects(303, "/login"), acknowledged, stays, ok},
      {"307 to a page of the same host", redirects(307, "/login"), acknowledged, stays, ok},
      {"307 to another host", redirects(307, "ELSE/login"), stays, stays, code(307)},
      {"308 to another host", redirects(308, "ELSE/login"), stays, stays, code(308)},
      {"302 in a circle", redirects(302, "HERE/again"), stays, stays, circle},
      {"307 in a circle", redirects(307, "HERE/api/v1/demo/positions"), stays, stays, circle},
      {"302 to a file", redirects(302, "file:///etc/passwd"), stays, stays, error("unsupported URL")},
      {"302 without an address", status(302), stays, stays, code(302)},
      {"302 from https to http",
       secured({}, true, TLS1_3_VERSION, httpReply(302, "", away)), stays, stays, secure, growing, 1, 0, tls}};
  for (const int number : {201, 204, 206, 304, 400, 401, 403, 404, 408, 413, 429, 500, 502, 503, 504, 511})
    rows.push_back({"Status " + std::to_string(number), status(number), stays, stays, code(number),
                    number == 401 || number == 403 ? longest : growing});
  for (const int number : {429, 503})
    rows.push_back({"Status " + std::to_string(number) + " with \"Retry-After: 60\"",
                    status(number, "Retry-After: 60\r\n"), stays, stays, code(number), minute});
  const auto https = [&](const char* what, Act act, const std::string& line, const char* url) {
    rows.push_back({what, std::move(act), givenUp, stays, line, growing, 1, 0, url});
  };
  https("A certificate that has expired", secured(Terms{-7200, -3600}, true), untrusted, tls);
  https("One that is not valid yet, or a device whose clock is behind", secured(Terms{3600, 7200}, true), untrusted,
        tls);
  https("A self-signed certificate", secured({}, false), untrusted, tls);
  https("The certificate of another host", secured(Terms{-3600, 3600, "DNS:backend.invalid"}, true), untrusted, other);
  https("A certificate signed with SHA-1", secured(Terms{-3600, 3600, Terms().names, EVP_sha1()}, true), untrusted,
        tls);
  https("TLS 1.1 at most", secured({}, true, TLS1_1_VERSION), secure, tls);
  https("TLS 1.0 at most", secured({}, true, TLS1_VERSION), secure, tls);
  https(
      "Plain HTTP where TLS is spoken", [](Connection& c) { c.send(httpReply(200, kGood)), c.readHead(); }, secure,
      tls);
  https(
      "Closed in the handshake",
      [](Connection& c) {
        char byte;
        c.read(&byte, 1);
      },
      secure, tls);
  return rows;
}

}  // namespace tarvo::faults
