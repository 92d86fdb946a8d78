// TlsSocketControl: the socket control over TLS from the first byte
// (implicit TLS, as on port 465), with OpenSSL.
//
// It behaves like TcpSocketControl; State stays 6 (connecting) until the TLS
// handshake is done. The server's certificate is verified against the
// system's trusted roots and the host name given to Connect (or the address,
// when an address is given); a failed verification or handshake raises the
// Error event 10071 with the reason and leaves State 9. CAFile names a PEM
// file of certificates to trust instead of the system's roots (a private CA);
// VerifyPeer false turns verification off (for tests against throw-away
// servers only).
//
// Thread-safety: as TcpSocketControl.
#ifndef QUILLO_PLATFORM_TLS_SOCKET_H_
#define QUILLO_PLATFORM_TLS_SOCKET_H_

#include <string>

#include "platform/tcp_socket.h"

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

namespace quillo {

// A socket control over TLS.
class TlsSocketControl : public TcpSocketControl {
 public:
  TlsSocketControl() = default;
  ~TlsSocketControl() override;

  // Whether the server's certificate and name are verified (true).
  void VerifyPeer(bool value) { verify_peer_ = value; }
  bool VerifyPeer() const { return verify_peer_; }
  // PEM file of CA certificates to trust instead of the system's; empty for
  // the system's roots.
  void CAFile(std::string value) { ca_file_ = std::move(value); }
  const std::string& CAFile() const { return ca_file_; }

  const MemberTable& Members() const override;

 protected:
  void StartSession() override;
  void ContinueSession(short revents) override;
  short SessionInterest() const override;
  long RawRecv(char* buffer, size_t size, bool* would_block, std::string* failure) override;
  long RawSend(const char* buffer, size_t size, bool* would_block, std::string* failure) override;
  void EndSession() override;

 private:
  void FailHandshake();

  bool verify_peer_ = true;
  std::string ca_file_;
  SSL_CTX* ctx_ = nullptr;
  SSL* ssl_ = nullptr;
  bool want_read_ = false;
  bool want_write_ = false;
};

}  // namespace quillo

#endif  // QUILLO_PLATFORM_TLS_SOCKET_H_
