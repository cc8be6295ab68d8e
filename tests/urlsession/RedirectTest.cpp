#include <openssl/conf.h>

#include <fstream>

#include "platform/foundation/SerialQueue.h"
#include "platform/foundation/Text.h"
#include "support/Servers.h"
#include "urlsession/Fetch.h"

namespace tarvo::platform {
namespace {

using namespace test;

/// Answers ".../STATUS?LOCATION" with just that, all else with 200.
std::string redirectAsAsked(const std::string& head) {
  const auto question = head.find('?');
  if (question == head.npos || std::isdigit(head[question - 1]) == 0)
    return "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
  return "HTTP/1.1 " + head.substr(question - 3, 3) +
         " Elsewhere\r\nLocation: " + head.substr(question + 1, head.find(' ', question) - question - 1) +
         "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
}

TEST(Redirect, IsFollowedOnItsHostWithoutCredentials) {
  std::string last;
  RawServer server([&](int connection) {
    last = RawServer::readRequest(RawServer::from(connection));
    RawServer::send(connection, redirectAsAsked(last));
  });
  const std::tuple<int, std::string, std::string> cases[] = {
      {301, "POST", "GET"},  {302, "POST", "GET"}, {303, "POST", "GET"}, {307, "POST", "POST"},
      {308, "POST", "POST"}, {301, "PUT", "PUT"},  {303, "PUT", "GET"},  {302, "GET", "GET"}};
  for (const auto& [status, method, after] : cases) {
    SCOPED_TRACE(concat(status, " ", method));
    URLRequest request{server.url(concat("/", status, "?sub/../end?x=1")), method};
    request.headers = {{"authorization", "Basic x"}, {"Content-Type", "application/json"}, {"X-Own", "1"}};
    if (method != "GET") request.httpBody = "{}";
    const Outcome outcome = fetch(request);
    EXPECT_EQ(outcome.status(), 200);
    EXPECT_EQ(outcome.response.value().url, server.url("/end?x=1"));
    const bool same = method == after;
    EXPECT_EQ(last, concat(after, " /end?x=1 HTTP/1.1\r\nHost: ", server.host(), "\r\n",
                           same ? "Content-Type: application/json\r\n" : "", "X-Own: 1\r\n",
                           same && method != "GET" ? "Content-Length: 2\r\n\r\n{}" : "\r\n"));
  }
  std::string redirects;
  for (int i = 0; i < 20; ++i) redirects += "/302?";
  EXPECT_EQ(fetch({server.url(redirects + "/end")}).status(), 200);
  const Outcome endless = fetch({server.url(redirects + "/302?/end")});
  EXPECT_EQ(endless.code(), urlError::tooManyRedirects);
  EXPECT_EQ(endless.status(), 302);
  EXPECT_EQ(fetch({server.url("/302?file:///etc/passwd")}).code(), urlError::unsupportedURL);
}

/// This host with and without TLS, and a proxy that stands for all others. Each redirects as it is asked.
struct Hosts : Trusted {
  Hosts() {
    for (const char* scheme : {"http_proxy", "https_proxy"}) ::setenv(scheme, proxy.url().c_str(), 1);
    ::unsetenv("no_proxy");
  }
  std::string answer(const std::string& head) {
    ++asked;
    last = head.substr(0, head.find("\r\n"));
    return redirectAsAsked(head);
  }
  void serve(int connection) {
    const std::string request = RawServer::readRequest(RawServer::from(connection));
    if (!request.starts_with("CONNECT ")) {
      RawServer::send(connection, answer(request));
    } else {
      RawServer::send(connection, "HTTP/1.1 200 Connected\r\n\r\n");
      serveTls(connection);
    }
  }
  void serveTls(int connection) {
    answerOverTls(connection, *this, TLS1_3_VERSION, [this](const std::string& head) { return answer(head); });
  }
  int asked = 0;
  std::string last;
  RawServer proxy{[this](int connection) { serve(connection); }};
  RawServer plain{[this](int connection) { serve(connection); }};
  RawServer secured{[this](int connection) { serveTls(connection); }};
};

TEST(Redirect, TakesNoBodyToAnotherHostAndNobodyFromOutsideToThisOne) {
  Hosts hosts;
  const std::string here = hosts.plain.url("/end"), hereSecured = "https://" + hosts.secured.host() + "/302?";
  const std::string remote = "http://backend.invalid/", secured = "https://backend.invalid/",
                    other = "http://other.invalid/end";
  constexpr int refused = urlError::secureConnectionFailed;
  const struct {
    std::string method, from, to;
    int asked, status, code = 0;
    const char* last = "";
  } cases[] = {
      {"GET", secured + "302?", here, 1, 302, refused},
      {"POST", secured + "307?", here, 1, 307, refused},
      {"POST", secured + "307?", remote + "end", 1, 307, refused},
      {"GET", hereSecured, here, 2, 200, 0, "GET /end HTTP/1.1"},
      {"POST", remote + "307?", other, 1, 307},
      {"POST", remote + "308?", "https://other.invalid/end", 1, 308},
      {"POST", remote + "307?", here, 1, 307},
      {"PUT", remote + "301?", other, 1, 301},
      {"FILE", remote + "308?", other, 1, 308},
      {"POST", remote + "308?", "http://Backend.INVALID/end", 2, 200, 0, "POST http://Backend.INVALID/end HTTP/1.1"},
      {"POST", remote + "307?", secured + "end", 2, 200, 0, "POST /end HTTP/1.1"},
      {"POST", remote + "303?", other, 2, 200, 0, "GET http://other.invalid/end HTTP/1.1"},
      {"GET", remote + "307?", other, 2, 200, 0, "GET http://other.invalid/end HTTP/1.1"}};
  SerialQueue queue("test.uploads");
  const auto body = hosts.dir.path() / "body";
  std::ofstream(body) << "positions";
  for (const auto& [method, from, to, asked, status, code, last] : cases) {
    SCOPED_TRACE(method + " " + from + to);
    hosts.asked = 0;
    URLRequest request{from + to, method == "FILE" ? "POST" : method};
    if (method == "POST" || method == "PUT") request.httpBody = "positions";
    const Outcome outcome = method == "FILE" ? upload(request, body, queue) : fetch(request);
    EXPECT_EQ(outcome.status(), status);
    EXPECT_EQ(outcome.code(), code);
    EXPECT_EQ(hosts.asked, asked);
    EXPECT_EQ(asked == 2 ? hosts.last : "", last);
  }
}

TEST(Tls, IsOfVersion12AtLeastWhateverTheSystemAllows) {
  const Trusted trusted;
  std::ofstream(trusted.dir.path() / "openssl.cnf")
      << "openssl_conf = a\n[a]\nssl_conf = b\n[b]\nsystem_default = c\n[c]\nMinProtocol = TLSv1\n"
         "CipherString = DEFAULT@SECLEVEL=0\n";
  ASSERT_EQ(CONF_modules_load_file((trusted.dir.path() / "openssl.cnf").c_str(), nullptr, 0), 1);
  for (const int version : {TLS1_VERSION, TLS1_1_VERSION, TLS1_2_VERSION, TLS1_3_VERSION}) {
    RawServer server([&](int connection) { answerOverTls(connection, trusted, version, redirectAsAsked); });
    const Outcome outcome = fetch({"https://" + server.host()});
    EXPECT_EQ(outcome.status(), version >= TLS1_2_VERSION ? 200 : 0) << version;
    EXPECT_EQ(outcome.code(), version >= TLS1_2_VERSION ? 0 : urlError::secureConnectionFailed) << version;
  }
}

}  // namespace
}  // namespace tarvo::platform
