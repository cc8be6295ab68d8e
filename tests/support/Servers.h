#pragma once

#include <httplib.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <functional>
#include <string>
#include <thread>

#include "support/RawServer.h"
#include "support/TempDir.h"

namespace tarvo::test {

/// A server on an ephemeral port that runs for as long as the object lives.
template <class Server = httplib::Server>
struct Running : Server {
  template <class... Arguments>
  explicit Running(Arguments... arguments) : Server(arguments...) {
    this->new_task_queue = [] { return new httplib::ThreadPool(32); };
    this->set_keep_alive_timeout(1);
    port = this->bind_to_any_port("127.0.0.1");
    thread = std::thread([this] { this->listen_after_bind(); });
    while (!this->is_running()) std::this_thread::yield();
  }
  ~Running() override {
    this->stop();
    thread.join();
  }
  std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port) + path; }

  int port;
  std::thread thread;
};

/// A key and a certificate for 127.0.0.1, backend.invalid and other.invalid, signed by its issuer or by itself.
struct Certificate {
  explicit Certificate(const std::string& name = "self-signed", const Certificate* issuer = nullptr)
      : key(EVP_EC_gen("P-256")), x509(X509_new()) {
    X509_set_version(x509, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x509), 1);
    X509_gmtime_adj(X509_getm_notBefore(x509), -3600);
    X509_gmtime_adj(X509_getm_notAfter(x509), 3600);
    const std::basic_string<unsigned char> common(name.begin(), name.end());
    X509_NAME_add_entry_by_txt(X509_get_subject_name(x509), "CN", MBSTRING_ASC, common.data(), -1, -1, 0);
    X509_set_issuer_name(x509, X509_get_subject_name(issuer ? issuer->x509 : x509));
    X509_set_pubkey(x509, key);
    for (const auto& [kind, value] :
         {std::pair(NID_subject_alt_name, "IP:127.0.0.1,DNS:backend.invalid,DNS:other.invalid"),
          {NID_basic_constraints, "CA:TRUE"}}) {
      X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value);
      X509_add_ext(x509, extension, -1);
      X509_EXTENSION_free(extension);
    }
    X509_sign(x509, issuer ? issuer->key : key, EVP_sha256());
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

/// Answers one request that comes over TLS of that version at most, from a client whose certificate `clients` has
/// signed if that is given.
inline void answerOverTls(int connection, const Certificate& own, int newestVersion,
                          const std::function<std::string(const std::string& request)>& answer,
                          const Certificate* clients = nullptr) {
  SSL_CTX* context = SSL_CTX_new(TLS_server_method());
  SSL_CTX_set_security_level(context, 0);
  SSL_CTX_set_min_proto_version(context, TLS1_VERSION);
  SSL_CTX_set_max_proto_version(context, newestVersion);
  SSL_CTX_use_certificate(context, own.x509);
  SSL_CTX_use_PrivateKey(context, own.key);
  if (clients) {
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    X509_STORE_add_cert(SSL_CTX_get_cert_store(context), clients->x509);
  }
  SSL* tls = SSL_new(context);
  SSL_set_fd(tls, connection);
  if (SSL_accept(tls) == 1) {
    const std::string reply = answer(RawServer::readRequest(
        [tls](char* to, std::size_t size) { return ssize_t{SSL_read(tls, to, static_cast<int>(size))}; }));
    SSL_write(tls, reply.data(), static_cast<int>(reply.size()));
  }
  SSL_free(tls);
  SSL_CTX_free(context);
}

struct TrustedServer : Trusted, Running<httplib::SSLServer> {
  TrustedServer() : Running(x509, key) {}
  std::string url() const { return "https://127.0.0.1:" + std::to_string(port) + "/"; }
};

}  // namespace tarvo::test
