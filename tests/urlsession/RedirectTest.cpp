#include <gtest/gtest.h>
#include <openssl/conf.h>

#include <fstream>

#include "platform/foundation/SerialQueue.h"
#include "platform/urlsession/URLSession.h"
#include "support/TempDir.h"
#include "urlsession/Fetch.h"
#include "urlsession/RawServer.h"
#include "urlsession/Servers.h"

namespace tarvo::platform {
namespace {

using test::fetch;
using test::Outcome;
using test::RawServer;

/// The certificate of the test's servers is trusted, and nothing else.
struct Trusted : test::SelfSigned {
  Trusted() {
    std::ofstream(dir.path() / "ca.pem") << pem();
    ::setenv("SSL_CERT_FILE", (dir.path() / "ca.pem").c_str(), 1);
  }
  test::TempDir dir;
};

/// Answers ".../STATUS?LOCATION" with just that, all else with 200.
std::string redirectAsAsked(const std::string& head) {
  const auto question = head.find('?');
  if (question == head.npos) return "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
  return "HTTP/1.1 " + head.substr(question - 3, 3) +
         " Elsewhere\r\nLocation: " + head.substr(question + 1, head.find(' ', question) - question - 1) +
         "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
}

TEST(Redirect, TakesNoBodyToAnotherHostAndNobodyFromOutsideToThisOne) {
  const Trusted trusted;
  int asked = 0;
  std::string last;
  const auto answer = [&](const std::string& head) {
    ++asked;
    last = head.substr(0, head.find("\r\n"));
    return redirectAsAsked(head);
  };
  // Stands for all hosts but this one.
  RawServer proxy([&](int connection) {
    const std::string request = RawServer::readRequest(connection);
    if (!request.starts_with("CONNECT ")) {
      RawServer::send(connection, answer(request));
    } else {
      RawServer::send(connection, "HTTP/1.1 200 Connected\r\n\r\n");
      test::answerOverTls(connection, trusted, TLS1_3_VERSION, answer);
    }
  });
  for (const char* scheme : {"http_proxy", "https_proxy"}) ::setenv(scheme, proxy.url().c_str(), 1);
  ::unsetenv("no_proxy");
  RawServer plain([&](int connection) { RawServer::send(connection, answer(RawServer::readRequest(connection))); });
  RawServer secured([&](int connection) { test::answerOverTls(connection, trusted, TLS1_3_VERSION, answer); });
  const std::string here = plain.url("/end");
  const std::string hereSecured = "https://" + secured.host();

  struct Case {
    std::string method, from, to;
    int asked, status;
    int code = 0;
    const char* last = "";
  };
  const Case cases[] = {
      {"GET", "https://backend.invalid/302?", here, 1, 302, urlError::secureConnectionFailed},
      {"POST", "https://backend.invalid/307?", here, 1, 307, urlError::secureConnectionFailed},
      {"POST", "https://backend.invalid/307?", "http://backend.invalid/end", 1, 307, urlError::secureConnectionFailed},
      {"GET", hereSecured + "/302?", here, 2, 200, 0, "GET /end HTTP/1.1"},
      {"POST", "http://backend.invalid/307?", "http://other.invalid/end", 1, 307},
      {"POST", "http://backend.invalid/308?", "https://other.invalid/end", 1, 308},
      {"POST", "http://backend.invalid/307?", here, 1, 307},
      {"PUT", "http://backend.invalid/301?", "http://other.invalid/end", 1, 301},
      {"FILE", "http://backend.invalid/308?", "http://other.invalid/end", 1, 308},
      {"POST", "http://backend.invalid/308?", "http://Backend.INVALID/end", 2, 200, 0,
       "POST http://Backend.INVALID/end HTTP/1.1"},
      {"POST", "http://backend.invalid/307?", "https://backend.invalid/end", 2, 200, 0, "POST /end HTTP/1.1"},
      {"POST", "http://backend.invalid/303?", "http://other.invalid/end", 2, 200, 0,
       "GET http://other.invalid/end HTTP/1.1"},
      {"GET", "http://backend.invalid/307?", "http://other.invalid/end", 2, 200, 0,
       "GET http://other.invalid/end HTTP/1.1"},
  };
  SerialQueue queue("test.uploads");
  std::ofstream(trusted.dir.path() / "body") << "positions";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.method + " " + c.from + c.to);
    asked = 0;
    URLRequest request{c.from + c.to, c.method};
    if (c.method == "FILE") request.httpMethod = "POST";
    if (c.method == "POST" || c.method == "PUT") request.httpBody = "positions";
    const Outcome outcome =
        c.method == "FILE" ? test::upload(request, trusted.dir.path() / "body", queue) : fetch(request);
    EXPECT_EQ(outcome.status(), c.status);
    EXPECT_EQ(outcome.code(), c.code);
    EXPECT_EQ(asked, c.asked);
    EXPECT_EQ(c.asked == 2 ? last : "", c.last);
  }
}

TEST(Tls, IsOfVersion12AtLeastWhateverTheSystemAllows) {
  const Trusted trusted;
  std::ofstream(trusted.dir.path() / "openssl.cnf")
      << "openssl_conf = a\n[a]\nssl_conf = b\n[b]\nsystem_default = c\n[c]\nMinProtocol = TLSv1\n"
         "CipherString = DEFAULT@SECLEVEL=0\n";
  ASSERT_EQ(CONF_modules_load_file((trusted.dir.path() / "openssl.cnf").c_str(), nullptr, 0), 1);
  for (const int version : {TLS1_VERSION, TLS1_1_VERSION, TLS1_2_VERSION, TLS1_3_VERSION}) {
    RawServer server([&](int connection) { test::answerOverTls(connection, trusted, version, redirectAsAsked); });
    const Outcome outcome = fetch({"https://" + server.host()});
    EXPECT_EQ(outcome.status(), version >= TLS1_2_VERSION ? 200 : 0) << version;
    EXPECT_EQ(outcome.code(), version >= TLS1_2_VERSION ? 0 : urlError::secureConnectionFailed) << version;
  }
}

}  // namespace
}  // namespace tarvo::platform
