#include "tls_server.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "zel_server.h"

namespace zeltest {
namespace {

constexpr int kPollMs = 20;

void require(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("TLS test server: ") + what);
}

// A server context holding a fresh certificate for 127.0.0.1 signed by a
// fresh CA (the openssl tool makes both in a scratch directory), whose
// certificate goes to *ca_pem.
SSL_CTX* new_context(std::string* ca_pem) {
  char scratch[] = "/tmp/zel-tls-XXXXXX";
  require(mkdtemp(scratch) != nullptr, "scratch directory");
  const std::string dir = scratch, key = " -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes";
  const std::string script =
      "cd '" + dir + "' && printf 'subjectAltName=IP:127.0.0.1\\nextendedKeyUsage=serverAuth\\n' >ext &&" +
      " openssl req -x509" + key +
      " -keyout ca.key -out ca.pem -days 1 -subj '/CN=zel throwaway test CA' &&" + " openssl req" + key +
      " -keyout key.pem -out req.pem -subj /CN=127.0.0.1 &&" +
      " openssl x509 -req -in req.pem -CA ca.pem -CAkey ca.key -set_serial 2 -days 1 -extfile ext -out "
      "cert.pem";
  bool made = std::system((script + " 2>/dev/null").c_str()) == 0;
  *ca_pem = read_file(dir + "/ca.pem");
  SSL_CTX* context = made ? SSL_CTX_new(TLS_server_method()) : nullptr;
  bool loaded = context != nullptr &&
                SSL_CTX_use_certificate_file(context, (dir + "/cert.pem").c_str(), SSL_FILETYPE_PEM) == 1 &&
                SSL_CTX_use_PrivateKey_file(context, (dir + "/key.pem").c_str(), SSL_FILETYPE_PEM) == 1;
  (void)!std::system(("rm -rf '" + dir + "'").c_str());
  if (!loaded) SSL_CTX_free(context);
  require(loaded, "server certificate");
  return context;
}

}  // namespace

TlsServer::TlsServer() {
  context_ = new_context(&ca_pem_);
  try {
    listener_ = listen_loopback(&port_);
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
