#pragma once

#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <csignal>
#include <functional>
#include <string>

#include "support/RawServer.h"
#include "support/TempDir.h"

namespace tarvo::test {

/// A key and a certificate for 127.0.0.1, backend.invalid and other.invalid, signed by its issuer or by itself.
struct Certificate {
  struct Terms {
    long validFrom = -3600, validTo = 3600;  ///< seconds from now
    const char* names = "IP:127.0.0.1,DNS:backend.invalid,DNS:other.invalid";
    const EVP_MD* digest = EVP_sha256();
  };
  explicit Certificate(const std::string& name = "self-signed", const Certificate* issuer = nullptr)
      : Certificate(name, issuer, Terms()) {}
  Certificate(const std::string& name, const Certificate* issuer, const Terms& terms)
      : key(EVP_EC_gen("P-256")), x509(X509_new()) {
    X509_set_version(x509, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x509), 1);
    X509_gmtime_adj(X509_getm_notBefore(x509), terms.validFrom);
    X509_gmtime_adj(X509_getm_notAfter(x509), terms.validTo);
    const std::basic_string<unsigned char> common(name.begin(), name.end());
    X509_NAME_add_entry_by_txt(X509_get_subject_name(x509), "CN", MBSTRING_ASC, common.data(), -1, -1, 0);
    X509_set_issuer_name(x509, X509_get_subject_name(issuer ? issuer->x509 : x509));
    X509_set_pubkey(x509, key);
    for (const auto& [kind, value] :
         {std::pair(NID_subject_alt_name, terms.names), {NID_basic_constraints, "CA:TRUE"}}) {
      X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value);
      X509_add_ext(x509, extension, -1);
      X509_EXTENSION_free(extension);
    }
    X509_sign(x509, issuer ? issuer->key : key, terms.digest);
  }
  ~Certificate() {
    X509_free(x509);
    EVP_PKEY_free(key);
  }
  Certificate(const Certificate&) = delete;
  Certificate& operator=(const Certificate&) = delete;

  /// Appends what a file of certificates or of keys holds.
  void write(const std::string& file) const {
    inFile(file, [this](BIO* bio) { PEM_write_bio_X509(bio, x509); });
  }
  void writeKey(const std::string& file, const char* passphrase = nullptr) const {
    inFile(file, [this, passphrase](BIO* bio) {
      PEM_write_bio_PrivateKey(bio, key, passphrase ? EVP_aes_128_cbc() : nullptr, nullptr, 0, nullptr,
                               const_cast<char*>(passphrase));
    });
  }

  EVP_PKEY* key;
  X509* x509;

 private:
  static void inFile(const std::string& file, const std::function<void(BIO*)>& write) {
    BIO* bio = BIO_new_file(file.c_str(), "a");
    write(bio);
    BIO_free(bio);
  }
};

/// One that this process trusts, and nothing else.
struct Trusted : Certificate {
  Trusted() {
    const std::string file = dir.path() / "ca.pem";
    write(file);
    ::setenv("SSL_CERT_FILE", file.c_str(), 1);
  }
  TempDir dir;
};

/// What a server shows to its clients and asks of them.
struct TlsTerms {
  const Certificate& own;
  int newestVersion = TLS1_3_VERSION;
  const Certificate* clients = nullptr;  ///< has signed the certificate that each client needs
};

/// Goes on over TLS. What is read is empty if the peer does not agree.
class TlsConnection final : public Connection {
 public:
  TlsConnection(const Connection& plain, const TlsTerms& terms)
      : Connection(plain.socket), context_(SSL_CTX_new(TLS_server_method())) {
    SSL_CTX_set_security_level(context_, 0);
    SSL_CTX_set_min_proto_version(context_, TLS1_VERSION);
    SSL_CTX_set_max_proto_version(context_, terms.newestVersion);
    SSL_CTX_use_certificate(context_, terms.own.x509);
    SSL_CTX_use_PrivateKey(context_, terms.own.key);
    if (terms.clients) {
      SSL_CTX_set_verify(context_, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
      X509_STORE_add_cert(SSL_CTX_get_cert_store(context_), terms.clients->x509);
    }
    ::signal(SIGPIPE, SIG_IGN);  // of a client that goes away
    tls_ = SSL_new(context_);
    SSL_set_fd(tls_, socket);
    SSL_set_accept_state(tls_);
  }
  ~TlsConnection() override {
    SSL_free(tls_);
    SSL_CTX_free(context_);
  }
  ssize_t read(char* to, std::size_t size) override { return SSL_read(tls_, to, static_cast<int>(size)); }
  ssize_t peek(char* to, std::size_t size) override { return SSL_peek(tls_, to, static_cast<int>(size)); }
  bool send(const std::string& bytes) override {
    return SSL_write(tls_, bytes.data(), static_cast<int>(bytes.size())) > 0;
  }

 private:
  SSL_CTX* context_;
  SSL* tls_;
};

/// Answers in plain or over TLS, as it is asked, and is the proxy for every host. Answers what it was asked to connect
/// to, if it was.
inline std::string answerAsAnyHost(Connection& connection, const TlsTerms& terms, const Answer& answer) {
  const auto startsWith = [&](char wanted) {
    char first = 0;
    return ::recv(connection.socket, &first, 1, MSG_PEEK) == 1 && first == wanted;
  };
  std::string connect;
  if (startsWith('C')) {
    connect = connection.readHead().substr(8);
    connect.resize(connect.find(' '));
    connection.send("HTTP/1.1 200 Connected\r\n\r\n");
  }
  if (startsWith(SSL3_RT_HANDSHAKE))
    TlsConnection(connection, terms).answerAll(answer);
  else
    connection.answerAll(answer);
  return connect;
}

}  // namespace tarvo::test
