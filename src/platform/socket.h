// The socket-control interface that the SMTP client is given.
//
// SocketControl has the shape of the classic socket control: Connect(host,
// port), State (7 = connected), SendData, GetData, Close, and the events
// DataArrival(bytesTotal) and Error(Number, Description, Scode, Source,
// HelpFile, HelpContext, CancelDisplay). Work is asynchronous: Connect and
// SendData return at once, and the event pump (quillo::DoEvents, see
// event_loop.h) moves bytes and delivers the events on the caller's thread,
// both to the typed C++ callbacks and to by-name sinks registered with Advise.
//
//   auto socket = std::make_shared<quillo::TcpSocketControl>();
//   socket->OnDataArrival([&](long n) { std::string s; socket->GetData(s, 8, n); });
//   socket->Connect("127.0.0.1", 2525);
//   while (socket->State() != quillo::SocketControl::kConnected) quillo::DoEvents();
//
// Thread-safety: a socket belongs to the thread that connects it; its events
// are delivered by that thread's DoEvents.
#ifndef QUILLO_PLATFORM_SOCKET_H_
#define QUILLO_PLATFORM_SOCKET_H_

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/object.h"

namespace quillo {

// The socket-control interface.
class SocketControl : public Object {
 public:
  // Values of State().
  static constexpr int16_t kClosed = 0;
  static constexpr int16_t kOpen = 1;
  static constexpr int16_t kResolvingHost = 4;
  static constexpr int16_t kConnecting = 6;
  static constexpr int16_t kConnected = 7;
  static constexpr int16_t kPeerClosing = 8;
  static constexpr int16_t kError = 9;

  // Error numbers raised by the Error event and by the calls.
  static constexpr long kErrWrongState = 40006;        // SendData/GetData when not connected.
  static constexpr long kErrInvalidOperation = 40020;  // Connect while not closed.
  static constexpr int16_t kErrConnectionRefused = 10061;
  static constexpr int16_t kErrConnectionReset = 10054;
  static constexpr int16_t kErrTimedOut = 10060;
  static constexpr int16_t kErrHostNotFound = 11001;
  static constexpr int16_t kErrSecurity = 10071;  // TLS handshake or verification failure.
  static constexpr int16_t kErrSocket = 10050;    // Any other socket failure.

  // Typed callback for DataArrival: the number of bytes waiting.
  using DataArrivalHandler = std::function<void(long bytes_total)>;
  // Typed callback for Error; `cancel_display` may be changed by the handler.
  using ErrorHandler = std::function<void(
      int16_t number, const std::string& description, int32_t scode, const std::string& source,
      const std::string& help_file, int32_t help_context, bool& cancel_display)>;

  SocketControl() = default;
  ~SocketControl() override = default;

  // Starts connecting to `remote_host` at `remote_port`; completion or failure
  // is seen through State() and the Error event. Raises 40020 when the socket
  // is not closed.
  virtual void Connect(const std::string& remote_host, int32_t remote_port) = 0;
  // The state: 0 closed, 6 connecting, 7 connected, 8 peer closing, 9 error.
  virtual int16_t State() const = 0;
  // Queues `data` (bytes) for sending. Raises 40006 when not connected.
  virtual void SendData(std::string_view data) = 0;
  // Moves up to `max_len` received bytes (all when max_len <= 0) into `data`.
  // `type` is the automation type asked for; only text (8) and byte arrays
  // (8209) are meaningful and both deliver the bytes as they came.
  virtual void GetData(std::string& data, int32_t type = 8, int32_t max_len = 0) = 0;
  // Closes the connection; State() becomes 0. Pending events are dropped.
  virtual void Close() = 0;
  // Bytes received and not yet taken with GetData.
  virtual long BytesReceived() const = 0;

  // Sets the typed DataArrival callback (an empty function removes it).
  void OnDataArrival(DataArrivalHandler handler) { on_data_arrival_ = std::move(handler); }
  // Sets the typed Error callback (an empty function removes it).
  void OnError(ErrorHandler handler) { on_error_ = std::move(handler); }

  // --- Event pump integration (used by quillo::DoEvents) ---
  // The descriptor to poll, or -1 when there is none.
  virtual int PollDescriptor() const = 0;
  // The poll(2) events wanted now (0 for none).
  virtual short PollInterest() const = 0;
  // True when an event is ready to be delivered without waiting.
  virtual bool HasPendingEvent() const = 0;
  // Handles readiness `revents` from poll (0 when only pending events are due)
  // and delivers the events that result.
  virtual void Dispatch(short revents) = 0;

  const MemberTable& Members() const override;

 protected:
  // Delivers DataArrival to the callback and the by-name sinks.
  void RaiseDataArrival(long bytes_total);
  // Delivers Error to the callback and the by-name sinks.
  void RaiseError(int16_t number, const std::string& description, int32_t scode,
                  const std::string& source);

  // Adds or removes this socket from the calling thread's event pump.
  void Register();
  void Unregister();

 private:
  DataArrivalHandler on_data_arrival_;
  ErrorHandler on_error_;
};

// The Scode that goes with a socket error number (0x800A0000 | number).
int32_t SocketScode(int16_t number);

// True when the connected TCP socket `fd` met itself: its local address and
// port are its peer's. A connect to a loopback port where nothing listens can
// end so (the system may pick that very port as the local one, and the
// connection opens onto itself); nothing will ever answer on it.
bool ConnectedToItself(int fd);

}  // namespace quillo

#endif  // QUILLO_PLATFORM_SOCKET_H_
