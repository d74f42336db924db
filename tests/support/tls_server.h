#pragma once
// A loopback HTTPS server with a certificate authority of its own, made
// afresh for each server: its certificate (for 127.0.0.1) is signed by a CA
// no machine trusts, so a client that accepts it must have been given that
// CA. Every request gets "200 OK" with the body "ok".
#include <atomic>
#include <string>
#include <thread>

struct ssl_ctx_st;  // OpenSSL's SSL_CTX

namespace zeltest {

class TlsServer {
 public:
  TlsServer();
  ~TlsServer();
  TlsServer(const TlsServer&) = delete;
  TlsServer& operator=(const TlsServer&) = delete;

  std::string url(const std::string& path) const;
  // The CA certificate in PEM, as a CA bundle file holds it.
  const std::string& ca_pem() const { return ca_pem_; }
  // Requests answered so far (after a completed handshake).
  int answered() const { return answered_.load(); }

 private:
  void accept_loop();
  void serve(int fd);

  std::string ca_pem_;
  ssl_ctx_st* context_ = nullptr;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> answered_{0};
  std::thread acceptor_;
};

}  // namespace zeltest
