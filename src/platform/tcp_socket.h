// TcpSocketControl: the socket control over a plain, non-blocking TCP socket.
//
// Connect resolves the host, starts a non-blocking connect and returns; the
// event pump (quillo::DoEvents) completes it (State 7) or reports the failure
// through the Error event with State 9: 11001 unknown host, 10061 refused,
// 10054 reset, 10050 any other socket failure. Received bytes are read as
// they come and announced with DataArrival(bytes waiting); SendData queues
// bytes and writes them as the socket accepts them. An orderly close by the
// peer leaves State 8 (peer closing) and what was received stays readable.
// A connection (and, for TLS, its handshake) that is not up within
// ConnectTimeout seconds (30) fails with 10060.
//
// Thread-safety: one thread per socket (the one that pumps its events).
#ifndef QUILLO_PLATFORM_TCP_SOCKET_H_
#define QUILLO_PLATFORM_TCP_SOCKET_H_

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "platform/socket.h"

namespace quillo {

// A socket control over plain TCP.
class TcpSocketControl : public SocketControl {
 public:
  TcpSocketControl() = default;
  ~TcpSocketControl() override;

  void Connect(const std::string& remote_host, int32_t remote_port) override;
  int16_t State() const override { return state_; }
  void SendData(std::string_view data) override;
  void GetData(std::string& data, int32_t type = 8, int32_t max_len = 0) override;
  void Close() override;
  long BytesReceived() const override { return static_cast<long>(rx_.size() - rx_pos_); }

  // Seconds a connection (with its handshake) may take; 0 for no limit.
  void ConnectTimeout(int32_t seconds) { connect_timeout_ = seconds; }
  int32_t ConnectTimeout() const { return connect_timeout_; }
  // The host name or address last given to Connect.
  const std::string& RemoteHost() const { return remote_host_; }
  // The port last given to Connect.
  int32_t RemotePort() const { return remote_port_; }

  int PollDescriptor() const override { return fd_; }
  short PollInterest() const override;
  bool HasPendingEvent() const override;
  void Dispatch(short revents) override;

  const MemberTable& Members() const override;

 protected:
  // Called when the TCP connection is up; the default makes the socket
  // connected. A secure socket starts its handshake here.
  virtual void StartSession();
  // Called with poll readiness while the socket is connecting after the TCP
  // connect completed (a handshake in progress).
  virtual void ContinueSession(short /*revents*/) {}
  // Extra poll events the session layer wants.
  virtual short SessionInterest() const { return 0; }
  // Reads up to `size` bytes: > 0 bytes read, 0 end of stream, -1 with
  // `*would_block` true when nothing is available, -1 otherwise on failure.
  virtual long RawRecv(char* buffer, size_t size, bool* would_block, std::string* failure);
  // Writes up to `size` bytes: bytes written, or -1 as for RawRecv.
  virtual long RawSend(const char* buffer, size_t size, bool* would_block, std::string* failure);
  // Releases the session layer before the descriptor is closed.
  virtual void EndSession() {}

  // Marks the socket connected (State 7).
  void SetConnected() { state_ = kConnected; }
  // Closes the descriptor, sets State 9 and queues an Error event.
  void Fail(int16_t number, std::string description);

  int fd_ = -1;

 private:
  void ReadAvailable();
  void Flush();
  void CloseDescriptor();

  int16_t state_ = kClosed;
  int32_t connect_timeout_ = 30;
  std::chrono::steady_clock::time_point connect_deadline_;
  std::string remote_host_;
  int32_t remote_port_ = 0;
  bool tcp_connected_ = false;
  bool eof_ = false;
  bool new_data_ = false;
  std::string rx_;  // Received bytes; those before rx_pos_ are taken.
  size_t rx_pos_ = 0;
  std::string tx_;  // Bytes queued for sending; those before tx_pos_ are sent.
  size_t tx_pos_ = 0;
  struct PendingError {
    int16_t number;
    std::string description;
  };
  std::optional<PendingError> pending_error_;
};

}  // namespace quillo

#endif  // QUILLO_PLATFORM_TCP_SOCKET_H_
