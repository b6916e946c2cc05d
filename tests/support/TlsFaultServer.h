#pragma once

// Loopback servers that misbehave, for the HTTP client's fault tests.
// LoopbackListener hands each connection to a function of the test's own;
// TlsFaultServer is one whose TLS is wrong in one chosen way.
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace qs::testing {

// A socket on a free 127.0.0.1 port. With `serve`, a thread accepts and hands
// each connection (with 10 s send and receive limits, closed afterwards) to
// it; without, connections wait unanswered in the backlog, or are refused
// when not `listening`.
class LoopbackListener {
 public:
  using Serve = std::function<void(int fd, std::size_t connection)>;
  explicit LoopbackListener(Serve serve = nullptr, bool listening = true) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
        (listening && listen(fd_, 16) != 0)) {
      throw std::runtime_error("LoopbackListener: cannot listen on loopback");
    }
    port_ = ntohs(address.sin_port);
    if (serve) thread_ = std::thread([this, serve = std::move(serve)] { run(serve); });
  }
  ~LoopbackListener() {
    stop();
    close(fd_);
  }
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;

  // Joins the thread once the connection being served is done.
  void stop() {
    shutdown(fd_, SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
  }
  int port() const { return port_; }
  std::string url(const std::string& scheme = "http", const std::string& host = "127.0.0.1") const {
    return scheme + "://" + host + ":" + std::to_string(port_) + "/";
  }

 private:
  void run(const Serve& serve) {
    // A client that hangs up makes writes fail with EPIPE instead of raising
    // SIGPIPE, which would end the whole test process.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    for (std::size_t connection = 0;; ++connection) {
      const int fd = accept(fd_, nullptr, nullptr);
      if (fd < 0) return;  // stop() shut the listener down
      // A client that goes quiet fails its test instead of hanging it.
      const timeval limit{10, 0};
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
      setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
      serve(fd, connection);
      close(fd);
    }
  }

  int fd_ = -1;
  int port_ = 0;
  std::thread thread_;
};

// A TLS server whose certificate has expired, names another host or comes
// from an authority the client does not trust; that offers only TLS 1.0; or
// that closes in the middle of the handshake. In the Good mode it answers
// every request with a small 200, which shows the setup itself works. Its
// certificates are made at run time, by an authority whose PEM file is
// caFile().
class TlsFaultServer {
 public:
  enum class Fault { Good, Expired, WrongHost, UnknownAuthority, Tls10Only, CloseInHandshake };

  // Listens once constructed; `dir` receives the trusted authority's file.
  TlsFaultServer(Fault fault, const std::filesystem::path& dir) : fault_(fault) {
    Key caKey = newKey();
    Cert ca = issue("Quarrystone TLS Fault Test CA", 0, nullptr, caKey, caKey, nullptr);
    caFile_ = (dir / "tls-fault-ca.pem").string();
    FILE* file = std::fopen(caFile_.c_str(), "w");
    if (!file) throw std::runtime_error("TlsFaultServer: cannot write " + caFile_);
    PEM_write_X509(file, ca.get());
    std::fclose(file);

    Key leafKey = newKey(), strangerKey = newKey();
    const char* names = fault == Fault::WrongHost
                            ? "DNS:elsewhere.example"
                            : "DNS:localhost,DNS:*.collector.localhost,IP:127.0.0.1";
    Cert stranger = issue("Unknown Test CA", 0, nullptr, strangerKey, strangerKey, nullptr);
    const bool unknown = fault == Fault::UnknownAuthority;
    Cert leaf = issue("localhost", fault == Fault::Expired ? -2 : 0, names, leafKey,
                      unknown ? strangerKey : caKey, unknown ? stranger.get() : ca.get());

    ctx_.reset(SSL_CTX_new(TLS_server_method()));
    if (!ctx_ || SSL_CTX_use_certificate(ctx_.get(), leaf.get()) != 1 ||
        SSL_CTX_use_PrivateKey(ctx_.get(), leafKey.get()) != 1) {
      throw std::runtime_error("TlsFaultServer: cannot set up the TLS context");
    }
    if (fault == Fault::Tls10Only) {
      // TLS 1.0 signs its handshake with MD5+SHA-1, which only security level
      // 0 admits; the cipher list must say so too.
      SSL_CTX_set_security_level(ctx_.get(), 0);
      SSL_CTX_set_cipher_list(ctx_.get(), "DEFAULT:@SECLEVEL=0");
      SSL_CTX_set_min_proto_version(ctx_.get(), TLS1_VERSION);
      SSL_CTX_set_max_proto_version(ctx_.get(), TLS1_VERSION);
    }
    listener_ = std::make_unique<LoopbackListener>([this](int fd, std::size_t) { serve(fd); });
  }

  int port() const { return listener_->port(); }
  std::string url(const std::string& host = "localhost") const {
    return listener_->url("https", host);
  }
  const std::string& caFile() const { return caFile_; }
  // Connections taken, handshakes completed (a client may still refuse the
  // peer after its handshake, before it sends anything), connections on which
  // request bytes arrived, and requests answered with 200.
  int connections() const { return connections_.load(); }
  int handshakes() const { return handshakes_.load(); }
  int requests() const { return requests_.load(); }
  int answered() const { return answered_.load(); }

 private:
  using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
  using Cert = std::unique_ptr<X509, decltype(&X509_free)>;

  static Key newKey() { return Key(EVP_EC_gen("P-256"), EVP_PKEY_free); }

  // A certificate for `key`, valid for a day from `fromDays` days from now,
  // signed by `issuer` (null: an authority signing itself) with `issuerKey`;
  // a server's when it has `names`, an authority's otherwise.
  static Cert issue(const char* commonName, long fromDays, const char* names, const Key& key,
                    const Key& issuerKey, X509* issuer) {
    Cert cert(X509_new(), X509_free);
    X509_set_version(cert.get(), 2);
    static std::atomic<long> serial{1};
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial++);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), fromDays * 86400 - 3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), (fromDays + 1) * 86400);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(cert.get()), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0);
    X509_set_pubkey(cert.get(), key.get());
    X509_set_issuer_name(cert.get(), X509_get_subject_name(issuer ? issuer : cert.get()));
    X509V3_CTX v3;
    X509V3_set_ctx_nodb(&v3);
    X509V3_set_ctx(&v3, issuer ? issuer : cert.get(), cert.get(), nullptr, nullptr, 0);
    auto add = [&](int nid, const char* value) {
      X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &v3, nid, value);
      X509_add_ext(cert.get(), extension, -1);
      X509_EXTENSION_free(extension);
    };
    add(NID_basic_constraints, names ? "critical,CA:FALSE" : "critical,CA:TRUE");
    add(NID_key_usage, names ? "critical,digitalSignature" : "critical,keyCertSign,cRLSign");
    if (names) {
      add(NID_ext_key_usage, "serverAuth");
      add(NID_subject_alt_name, names);
    }
    X509_sign(cert.get(), issuerKey.get(), EVP_sha256());
    return cert;
  }

  void serve(int fd) {
    ++connections_;
    if (fault_ == Fault::CloseInHandshake) {
      char hello[512];  // the start of the client's hello, then nothing more
      (void)recv(fd, hello, sizeof hello, 0);
      return;
    }
    SSL* ssl = SSL_new(ctx_.get());
    SSL_set_fd(ssl, fd);
    if (SSL_accept(ssl) == 1) {
      ++handshakes_;
      std::string request;
      char buffer[4096];
      while (request.find("\r\n\r\n") == std::string::npos) {
        const int got = SSL_read(ssl, buffer, sizeof buffer);
        if (got <= 0) break;
        request.append(buffer, static_cast<std::size_t>(got));
      }
      if (!request.empty()) ++requests_;
      if (request.find("\r\n\r\n") != std::string::npos) {
        const std::string reply =
            "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nok";
        if (SSL_write(ssl, reply.data(), static_cast<int>(reply.size())) > 0) ++answered_;
      }
      SSL_shutdown(ssl);
    }
    SSL_free(ssl);
    ERR_clear_error();
  }

  const Fault fault_;
  std::string caFile_;
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> ctx_{nullptr, SSL_CTX_free};
  std::atomic<int> connections_{0};
  std::atomic<int> handshakes_{0};
  std::atomic<int> requests_{0};
  std::atomic<int> answered_{0};
  std::unique_ptr<LoopbackListener> listener_;  // last: its thread stops before the rest goes
};

}  // namespace qs::testing
