// TlsSocketControl: a non-blocking OpenSSL session over the TCP socket.
#include "platform/tls_socket.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>

namespace quillo {
namespace {

bool IsAddress(const std::string& host) {
  unsigned char buffer[16];
  return ::inet_pton(AF_INET, host.c_str(), buffer) == 1 ||
         ::inet_pton(AF_INET6, host.c_str(), buffer) == 1;
}

std::string LastSslError() {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0) return "TLS failure";
  char text[256];
  ERR_error_string_n(code, text, sizeof text);
  return text;
}

// Keeps SIGPIPE from killing the process while OpenSSL writes to a socket
// whose peer has gone: the signal is blocked on this thread for the call and
// a SIGPIPE raised meanwhile is consumed. The write then fails with EPIPE.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    was_pending_ = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipe, &old_);
  }
  ~SigpipeGuard() {
    if (!was_pending_) {
      sigset_t pipe;
      sigemptyset(&pipe);
      sigaddset(&pipe, SIGPIPE);
      sigset_t pending;
      sigpending(&pending);
      if (sigismember(&pending, SIGPIPE) == 1) {
        const timespec zero{0, 0};
        sigtimedwait(&pipe, nullptr, &zero);
      }
    }
    pthread_sigmask(SIG_SETMASK, &old_, nullptr);
  }
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

 private:
  sigset_t old_;
  bool was_pending_ = false;
};

}  // namespace

TlsSocketControl::~TlsSocketControl() {
  // The descriptor is closed by the base; the session is released here.
  EndSession();
}

const MemberTable& TlsSocketControl::Members() const {
  using T = TlsSocketControl;
  static const MemberTable table =
      MemberTable::Builder<T>("TlsSocketControl")
          .Include(TcpSocketControl::Members())
          .Put("VerifyPeer", [](T& s, bool v) { s.VerifyPeer(v); })
          .Get("VerifyPeer", [](T& s) { return s.VerifyPeer(); })
          .Put("CAFile", [](T& s, std::string v) { s.CAFile(std::move(v)); })
          .Get("CAFile", [](T& s) { return s.CAFile(); })
          .Build();
  return table;
}

void TlsSocketControl::StartSession() {
  EndSession();
  ERR_clear_error();
  ctx_ = SSL_CTX_new(TLS_client_method());
  if (!ctx_) return Fail(kErrSecurity, LastSslError());
  SSL_CTX_set_min_proto_version(ctx_, TLS1_2_VERSION);
  SSL_CTX_set_options(ctx_, SSL_OP_IGNORE_UNEXPECTED_EOF);
  SSL_CTX_set_mode(ctx_, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  if (verify_peer_) {
    const int loaded = ca_file_.empty()
                           ? SSL_CTX_set_default_verify_paths(ctx_)
                           : SSL_CTX_load_verify_locations(ctx_, ca_file_.c_str(), nullptr);
    if (loaded != 1)
      return Fail(kErrSecurity, "Cannot load the trusted certificates: " + LastSslError());
    SSL_CTX_set_verify(ctx_, SSL_VERIFY_PEER, nullptr);
  } else {
    SSL_CTX_set_verify(ctx_, SSL_VERIFY_NONE, nullptr);
  }
  ssl_ = SSL_new(ctx_);
  if (!ssl_) return Fail(kErrSecurity, LastSslError());
  SSL_set_fd(ssl_, fd_);
  const std::string& host = RemoteHost();
  if (IsAddress(host)) {
    if (verify_peer_) X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl_), host.c_str());
  } else {
    SSL_set_tlsext_host_name(ssl_, host.c_str());
    if (verify_peer_) SSL_set1_host(ssl_, host.c_str());
  }
  SSL_set_connect_state(ssl_);
  ContinueSession(0);
}

void TlsSocketControl::ContinueSession(short /*revents*/) {
  if (!ssl_) return;
  ERR_clear_error();
  int rc;
  {
    SigpipeGuard guard;
    rc = SSL_connect(ssl_);
  }
  if (rc == 1) {
    want_read_ = want_write_ = false;
    SetConnected();
    return;
  }
  const int error = SSL_get_error(ssl_, rc);
  if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
    want_read_ = error == SSL_ERROR_WANT_READ;
    want_write_ = error == SSL_ERROR_WANT_WRITE;
    return;
  }
  FailHandshake();
}

void TlsSocketControl::FailHandshake() {
  std::string reason;
  const long verify = ssl_ ? SSL_get_verify_result(ssl_) : X509_V_OK;
  if (verify_peer_ && verify != X509_V_OK) {
    reason =
        std::string("Certificate verification failed: ") + X509_verify_cert_error_string(verify);
    ERR_clear_error();
  } else {
    reason = "TLS handshake failed: " + LastSslError();
  }
  Fail(kErrSecurity, reason);
}

short TlsSocketControl::SessionInterest() const {
  if (!ssl_) return 0;
  if (State() == kConnecting) return want_write_ ? POLLOUT : POLLIN;
  return want_write_ ? POLLOUT : 0;
}

long TlsSocketControl::RawRecv(char* buffer, size_t size, bool* would_block, std::string* failure) {
  ERR_clear_error();
  SigpipeGuard guard;
  const int n = SSL_read(ssl_, buffer, static_cast<int>(size));
  if (n > 0) {
    want_write_ = false;
    return n;
  }
  const int error = SSL_get_error(ssl_, n);
  if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
    want_write_ = error == SSL_ERROR_WANT_WRITE;
    *would_block = true;
    return -1;
  }
  if (error == SSL_ERROR_ZERO_RETURN) return 0;
  *failure = "TLS read failed: " + LastSslError();
  return -1;
}

long TlsSocketControl::RawSend(const char* buffer, size_t size, bool* would_block,
                               std::string* failure) {
  ERR_clear_error();
  SigpipeGuard guard;
  const int n = SSL_write(ssl_, buffer, static_cast<int>(std::min<size_t>(size, 1 << 30)));
  if (n > 0) return n;
  const int error = SSL_get_error(ssl_, n);
  if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
    want_write_ = error == SSL_ERROR_WANT_WRITE;
    *would_block = true;
    return -1;
  }
  *failure = "TLS write failed: " + LastSslError();
  return -1;
}

void TlsSocketControl::EndSession() {
  if (ssl_) {
    ERR_clear_error();
    if (State() == kConnected || State() == kPeerClosing) {
      SigpipeGuard guard;
      SSL_shutdown(ssl_);
    }
    SSL_free(ssl_);
    ssl_ = nullptr;
  }
  if (ctx_) {
    SSL_CTX_free(ctx_);
    ctx_ = nullptr;
  }
  want_read_ = want_write_ = false;
  ERR_clear_error();
}

QUILLO_REGISTER_CLASS(TlsSocketControl, Creatable::kPublic);

}  // namespace quillo
