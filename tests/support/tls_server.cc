#include "tls_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>

namespace zeltest {
namespace {

constexpr int kPollMs = 20;

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Cert = std::unique_ptr<X509, decltype(&X509_free)>;

void require(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("TLS test server: ") + what);
}

Key new_key() {
  Key key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  require(key != nullptr, "key generation");
  return key;
}

void add_extension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
  bool added = extension != nullptr && X509_add_ext(cert, extension, -1) == 1;
  X509_EXTENSION_free(extension);
  require(added, "certificate extension");
}

// A certificate for `key`, signed with `issuer_key`: by the CA `issuer`,
// or by itself (a CA certificate) when `issuer` is null.
Cert new_cert(EVP_PKEY* key, const char* name, long serial, X509* issuer, EVP_PKEY* issuer_key) {
  Cert cert(X509_new(), X509_free);
  require(cert != nullptr, "certificate");
  X509* c = cert.get();
  X509_set_version(c, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(c), serial);
  X509_gmtime_adj(X509_getm_notBefore(c), -3600);
  X509_gmtime_adj(X509_getm_notAfter(c), 24 * 3600);
  X509_set_pubkey(c, key);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(c), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(name), -1, -1, 0);
  X509* signer = issuer != nullptr ? issuer : c;
  X509_set_issuer_name(c, X509_get_subject_name(signer));
  add_extension(c, signer, NID_subject_key_identifier, "hash");
  if (issuer == nullptr) {
    add_extension(c, signer, NID_basic_constraints, "critical,CA:TRUE");
    add_extension(c, signer, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    add_extension(c, signer, NID_authority_key_identifier, "keyid:always");
    add_extension(c, signer, NID_basic_constraints, "critical,CA:FALSE");
    add_extension(c, signer, NID_subject_alt_name, "IP:127.0.0.1");
    add_extension(c, signer, NID_ext_key_usage, "serverAuth");
  }
  require(X509_sign(c, issuer_key, EVP_sha256()) > 0, "signing");
  return cert;
}

std::string pem_of(X509* cert) {
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
  require(bio != nullptr && PEM_write_bio_X509(bio.get(), cert) == 1, "PEM");
  char* data = nullptr;
  long size = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(size));
}

// A server context holding a fresh certificate signed by a fresh CA, whose
// certificate goes to *ca_pem.
SSL_CTX* new_context(std::string* ca_pem) {
  Key ca_key = new_key();
  Cert ca = new_cert(ca_key.get(), "zel throwaway test CA", 1, nullptr, ca_key.get());
  Key key = new_key();
  Cert cert = new_cert(key.get(), "127.0.0.1", 2, ca.get(), ca_key.get());
  *ca_pem = pem_of(ca.get());
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  require(context != nullptr, "context");
  require(SSL_CTX_use_certificate(context.get(), cert.get()) == 1 &&
              SSL_CTX_use_PrivateKey(context.get(), key.get()) == 1,
          "server certificate");
  return context.release();
}

int listen_on_loopback(int* port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  require(fd >= 0, "socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(fd, 16) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    ::close(fd);
    require(false, "bind/listen");
  }
  *port = ntohs(address.sin_port);
  return fd;
}

}  // namespace

TlsServer::TlsServer() {
  context_ = new_context(&ca_pem_);
  try {
    listener_ = listen_on_loopback(&port_);
  } catch (...) {
    SSL_CTX_free(context_);
    throw;
  }
  acceptor_ = std::thread([this] { accept_loop(); });
}

TlsServer::~TlsServer() {
  stop_.store(true);
  acceptor_.join();
  ::close(listener_);
  SSL_CTX_free(context_);
}

std::string TlsServer::url(const std::string& path) const {
  return "https://127.0.0.1:" + std::to_string(port_) + path;
}

void TlsServer::accept_loop() {
  // A client that hangs up first must not end the test with SIGPIPE:
  // blocked, the signal stays pending on this thread and the write fails.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  while (!stop_.load()) {
    pollfd entry{listener_, POLLIN, 0};
    if (::poll(&entry, 1, kPollMs) <= 0) continue;
    int fd = ::accept(listener_, nullptr, nullptr);
    if (fd < 0) continue;
    serve(fd);
    ::close(fd);
  }
}

// One request per connection; a client that rejects the certificate ends
// the handshake, and with it the connection.
void TlsServer::serve(int fd) {
  timeval limit{5, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  SSL* ssl = SSL_new(context_);
  if (ssl != nullptr && SSL_set_fd(ssl, fd) == 1 && SSL_accept(ssl) == 1) {
    std::string head;
    char buffer[4096];
    int n = 0;
    while (head.find("\r\n\r\n") == std::string::npos && (n = SSL_read(ssl, buffer, sizeof buffer)) > 0)
      head.append(buffer, static_cast<size_t>(n));
    static const char kReply[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nok";
    if (n > 0 && SSL_write(ssl, kReply, sizeof kReply - 1) > 0) {
      answered_++;
      SSL_shutdown(ssl);
    }
  }
  SSL_free(ssl);
  ERR_clear_error();
}

}  // namespace zeltest
