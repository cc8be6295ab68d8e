#include <fstream>

#include "platform/foundation/SerialQueue.h"
#include "platform/foundation/Text.h"
#include "support/Tls.h"
#include "urlsession/Fetch.h"

namespace tarvo::platform {
namespace {

using namespace test;

/// This host and the proxy that stands for all others, with and without TLS. Answers ".../STATUS?LOCATION" with just
/// that, all else with 200.
struct Redirect : testing::Test {
  Redirect() {
    for (const char* scheme : {"http_proxy", "https_proxy"}) ::setenv(scheme, server.url().c_str(), 1);
    ::unsetenv("no_proxy");
  }
  std::string answer(const std::string& request) {
    ++timesAsked;
    seen = request;
    const auto question = request.find('?');
    if (question == request.npos || std::isdigit(request[question - 1]) == 0) return httpReply(200);
    const auto location = request.substr(question + 1, request.find(' ', question) - question - 1);
    return httpReply(std::stoi(request.substr(question - 3, 3)), "",
                     "Connection: close\r\nLocation: " + location + "\r\n");
  }
  const Trusted trusted;
  int timesAsked = 0;
  std::string seen;  ///< last
  RawServer server{[this](Connection& connection) {
    answerAsAnyHost(connection, {trusted}, [this](const std::string& request) { return answer(request); });
  }};
};

TEST_F(Redirect, IsFollowedOnItsHostWithoutCredentials) {
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
    EXPECT_EQ(seen, concat(after, " /end?x=1 HTTP/1.1\r\nHost: ", server.host(), "\r\n",
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

TEST_F(Redirect, TakesNoBodyToAnotherHostAndNobodyFromOutsideToThisOne) {
  const std::string here = server.url("/end"), hereSecured = "https://" + server.host() + "/302?";
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
  const auto body = trusted.dir.path() / "body";
  std::ofstream(body) << "positions";
  for (const auto& [method, from, to, asked, status, code, last] : cases) {
    SCOPED_TRACE(method + " " + from + to);
    timesAsked = 0;
    URLRequest request{from + to, method == "FILE" ? "POST" : method};
    if (method == "POST" || method == "PUT") request.httpBody = "positions";
    const Outcome outcome = method == "FILE" ? upload(request, body, queue) : fetch(request);
    EXPECT_EQ(outcome.status(), status);
    EXPECT_EQ(outcome.code(), code);
    EXPECT_EQ(timesAsked, asked);
    EXPECT_TRUE(asked == 1 || seen.starts_with(last)) << seen;
  }
}

}  // namespace
}  // namespace tarvo::platform
