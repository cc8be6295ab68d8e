#pragma once

#include <httplib.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <functional>
#include <string>
#include <thread>

#include "support/TempDir.h"
#include "urlsession/RawServer.h"

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

/// A key and a certificate for 127.0.0.1 and backend.invalid that signs itself.
struct SelfSigned {
  SelfSigned() : key(EVP_RSA_gen(2048)), certificate(X509_new()) {
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
    X509_NAME* subject = X509_get_subject_name(certificate);
    const std::basic_string<unsigned char> common(9, 'x');
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, common.data(), -1, -1, 0);
    X509_set_issuer_name(certificate, subject);
    X509_set_pubkey(certificate, key);
    X509_EXTENSION* name =
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "IP:127.0.0.1,DNS:backend.invalid");
    X509_add_ext(certificate, name, -1);
    X509_EXTENSION_free(name);
    X509_sign(certificate, key, EVP_sha256());
  }
  ~SelfSigned() {
    X509_free(certificate);
    EVP_PKEY_free(key);
  }
  EVP_PKEY* key;
  X509* certificate;
};

/// The same, which this process trusts, and nothing else.
struct Trusted : SelfSigned {
  Trusted() {
    const std::string file = dir.path() / "ca.pem";
    BIO* bio = BIO_new_file(file.c_str(), "w");
    PEM_write_bio_X509(bio, certificate);
    BIO_free(bio);
    ::setenv("SSL_CERT_FILE", file.c_str(), 1);
  }
  TempDir dir;
};

/// Answers one request that comes over TLS of that version at most.
inline void answerOverTls(int connection, const SelfSigned& own, int newestVersion,
                          const std::function<std::string(const std::string& request)>& answer) {
  SSL_CTX* context = SSL_CTX_new(TLS_server_method());
  SSL_CTX_set_security_level(context, 0);
  SSL_CTX_set_min_proto_version(context, TLS1_VERSION);
  SSL_CTX_set_max_proto_version(context, newestVersion);
  SSL_CTX_use_certificate(context, own.certificate);
  SSL_CTX_use_PrivateKey(context, own.key);
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

template <class Certificate>
struct Tls : Certificate, Running<httplib::SSLServer> {
  Tls() : Running(this->certificate, this->key) {}
  std::string url() const { return "https://127.0.0.1:" + std::to_string(port) + "/"; }
};

}  // namespace tarvo::test
