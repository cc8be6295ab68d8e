#include <tarvo/platform/TransferOptions.h>

#include <openssl/conf.h>

#include <fstream>

#include "platform/foundation/Text.h"
#include "support/LogDiary.h"
#include "support/Tls.h"
#include "urlsession/Fetch.h"

namespace tarvo::platform {
namespace {

using namespace test;

constexpr int untrusted = urlError::serverCertificateUntrusted, insecure = urlError::secureConnectionFailed,
              lost = urlError::networkConnectionLost;

const std::string kHere = "https://127.0.0.1:PORT/", kBackend = "https://backend.invalid/";

/// What a host sets, of files in the folder of the certificates, and what becomes of a transfer. "PORT" is that of a
/// backend which is its own proxy.
struct Case {
  const char* name;
  TransferOptions options;
  int status = 200, code = 0;
  bool told = false;  ///< on the system log
  std::string url = kHere, connect = "";
  int newestTls = TLS1_3_VERSION;
};
void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

const Case kCases[] = {
    {"NothingSet", {}, 0, insecure},
    {"RightFiles", {"", "ca", "client", "key"}},
    {"RightFilesOverOlderTls", {"", "ca", "client", "key"}, 200, 0, false, kHere, "", TLS1_2_VERSION},
    {"KeyBesideTheCertificate", {"", "ca", "both"}},
    {"EncryptedKey", {"", "ca", "client", "encrypted", "secret"}},
    {"EncryptedKeyWithoutPassphrase", {"", "ca", "client", "encrypted"}, 0, insecure, true},
    {"NoClientCertificate", {"", "ca"}, 0, lost},
    {"ClientOfAnotherAuthority", {"", "ca", "stranger"}, 0, lost},
    {"AbsentClientCertificate", {"", "ca", "absent"}, 0, insecure, true},
    {"KeyOfAnotherCertificate", {"", "ca", "client", "stranger"}, 0, insecure, true},
    {"AnotherAuthority", {"", "other", "both"}, 0, untrusted},
    {"AnotherHostName", {"", "ca", "both"}, 0, untrusted, false, "https://localhost:PORT/"},
    {"Proxy", {"127.0.0.1:PORT", "ca", "both"}, 200, 0, false, kBackend, "backend.invalid:443"},
    {"ProxyIsNotForThisMachine", {"http://127.0.0.1:1", "ca", "both"}},
    {"ProxyOverTls", {"https://127.0.0.1:PORT", "ca"}, 200, 0, false, "http://backend.invalid/open"},
    {"RedirectElsewhere", {"127.0.0.1:PORT", "ca", "both"}, 0, lost, false, kBackend + "away", "other.invalid:443"},
    {"Interface", {"", "ca", "both", "", "", "lo"}},
    {"AbsentInterface", {"", "ca", "both", "", "", "nonsense0"}, 0, urlError::notConnectedToInternet, true},
    {"AddressIsNoInterface", {"", "ca", "both", "", "", "127.0.0.1"}, 0, urlError::notConnectedToInternet, true}};

/// A backend that demands a certificate of each client, and a proxy for all hosts at once.
class TransferOption : public testing::TestWithParam<Case> {
 protected:
  TransferOption() {
    const Certificate other("other"), client("client", &authority), stranger("stranger", &other);
    authority.write(folder.path() / "ca");
    other.write(folder.path() / "other");
    client.write(folder.path() / "client");
    client.writeKey(folder.path() / "key");
    client.writeKey(folder.path() / "encrypted", "secret");
    client.write(folder.path() / "both");
    client.writeKey(folder.path() / "both");
    stranger.write(folder.path() / "stranger");
    stranger.writeKey(folder.path() / "stranger");
    for (const char* name : {"no_proxy", "SSL_CERT_FILE"}) ::setenv(name, "*", 1);  // the options go before these
    // A system that allows everything.
    std::ofstream(folder.path() / "openssl.cnf")
        << "openssl_conf = a\n[a]\nssl_conf = b\n[b]\nsystem_default = c\n[c]\nMinProtocol = TLSv1\n"
           "CipherString = DEFAULT@SECLEVEL=0\n";
    EXPECT_EQ(CONF_modules_load_file((folder.path() / "openssl.cnf").c_str(), nullptr, 0), 1);
  }
  void serve(Connection& connection) {
    const bool isOpen = GetParam().url.ends_with("open");
    const std::string asked = answerAsAnyHost(
        connection, {own, GetParam().newestTls, isOpen ? nullptr : &authority}, [this](const std::string& request) {
          requests.push_back(request);
          const bool away = request.find("/away ") != request.npos;
          return httpReply(away ? 302 : 200, "",
                           concat("Connection: close\r\n", away ? "Location: https://other.invalid/\r\n" : ""));
        });
    if (!asked.empty()) connect = asked;
  }
  std::string withPort(std::string text) const {
    const auto at = text.find("PORT");
    return at == text.npos ? text : text.replace(at, 4, server->port);
  }

  const Certificate authority{"authority"}, own{"server", &authority};
  const TempDir folder;
  std::string connect;                ///< what the proxy was asked for last
  std::vector<std::string> requests;  ///< what came through TLS
  std::optional<RawServer> server{std::in_place, [this](Connection& connection) { serve(connection); }};
};

TEST_P(TransferOption, IsWhatATransferGoesBy) {
  const Case& c = GetParam();
  auto& log = LogDiary::installed();
  TransferOptions options = c.options;
  options.proxy = withPort(options.proxy);
  std::filesystem::current_path(folder.path());
  EXPECT_TRUE(setTransferOptions(options));
  std::filesystem::current_path("/");
  const std::string url = withPort(c.url);
  for (int times = 0; times < 2; ++times) {
    const Outcome outcome = fetch({url, "POST", {}, "positions"});
    EXPECT_EQ(outcome.status(), c.status);
    EXPECT_EQ(outcome.code(), c.code) << (outcome.error ? outcome.error->description() : "");
  }
  server.reset();  // it has read all that came
  EXPECT_EQ(connect, c.connect);
  ASSERT_EQ(requests.size(), c.status == 200 || c.url.ends_with("away") ? 2U : 0U);
  for (const std::string& request : requests) EXPECT_TRUE(request.ends_with("\r\n\r\npositions")) << request;
  EXPECT_EQ(log.count("one of the transfer options cannot be used: "), c.told ? 1U : 0U);
  EXPECT_EQ(log.lines().size(), c.told ? 1U : 0U);
  std::filesystem::current_path(folder.path());
  EXPECT_TRUE(setTransferOptions(options)) << "those in use";
  options.clientKeyPassphrase += "late";
  EXPECT_FALSE(setTransferOptions(options)) << "there has been a transfer";
}

INSTANTIATE_TEST_SUITE_P(Each, TransferOption, testing::ValuesIn(kCases),
                         [](const auto& given) { return given.param.name; });

}  // namespace
}  // namespace tarvo::platform
