// TcpSocketControl: non-blocking connect and I/O driven by the event pump.
#include "platform/tcp_socket.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "platform/error.h"

namespace quillo {
namespace {

// Receive buffering stops past this many unread bytes until GetData drains it.
constexpr size_t kMaxUnreadBytes = 16 * 1024 * 1024;
constexpr size_t kReadChunk = 64 * 1024;

int16_t ErrorNumberFor(int error) {
  switch (error) {
    case ECONNREFUSED:
      return SocketControl::kErrConnectionRefused;
    case ECONNRESET:
    case EPIPE:
      return SocketControl::kErrConnectionReset;
    case ETIMEDOUT:
      return SocketControl::kErrTimedOut;
    default:
      return SocketControl::kErrSocket;
  }
}

std::string DescriptionFor(int16_t number, int error) {
  switch (number) {
    case SocketControl::kErrConnectionRefused:
      return "Connection is forcefully rejected";
    case SocketControl::kErrConnectionReset:
      return "Connection is reset by remote side";
    case SocketControl::kErrTimedOut:
      return "Connection timed out";
    default:
      return std::string("Socket error: ") + std::strerror(error);
  }
}

}  // namespace

TcpSocketControl::~TcpSocketControl() {
  if (fd_ >= 0) ::close(fd_);
  Unregister();
}

const MemberTable& TcpSocketControl::Members() const {
  static const MemberTable table =
      MemberTable::Builder<TcpSocketControl>("TcpSocketControl")
          .Include(SocketControl::Members())
          .Put("ConnectTimeout", [](TcpSocketControl& s, int32_t v) { s.ConnectTimeout(v); })
          .Get("ConnectTimeout", [](TcpSocketControl& s) { return s.ConnectTimeout(); })
          .Get("RemoteHost", [](TcpSocketControl& s) { return s.RemoteHost(); })
          .Get("RemotePort", [](TcpSocketControl& s) { return s.RemotePort(); })
          .Build();
  return table;
}

void TcpSocketControl::Connect(const std::string& remote_host, int32_t remote_port) {
  if (state_ != kClosed) Raise(kErrInvalidOperation, "Invalid operation at current state");
  remote_host_ = remote_host;
  remote_port_ = remote_port;
  rx_.clear();
  rx_pos_ = 0;
  tx_.clear();
  tx_pos_ = 0;
  eof_ = false;
  new_data_ = false;
  tcp_connected_ = false;
  pending_error_.reset();
  connect_deadline_ = std::chrono::steady_clock::now() + std::chrono::seconds(connect_timeout_);
  Register();

  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const std::string port_text = std::to_string(remote_port);
  state_ = kResolvingHost;
  // An address needs no lookup; a name goes through the resolver.
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  if (::getaddrinfo(remote_host.c_str(), port_text.c_str(), &hints, &found) != 0) {
    found = nullptr;
    hints.ai_flags = AI_NUMERICSERV;
  }
  if (remote_port <= 0 || remote_port > 65535 ||
      (!found && ::getaddrinfo(remote_host.c_str(), port_text.c_str(), &hints, &found) != 0) ||
      !found) {
    if (found) ::freeaddrinfo(found);
    Fail(kErrHostNotFound, "Authoritative answer: Host not found");
    return;
  }
  fd_ = ::socket(found->ai_family, found->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                 found->ai_protocol);
  if (fd_ < 0) {
    const int error = errno;
    ::freeaddrinfo(found);
    Fail(kErrSocket, DescriptionFor(kErrSocket, error));
    return;
  }
  const int one = 1;
  ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  const int rc = ::connect(fd_, found->ai_addr, found->ai_addrlen);
  const int error = errno;
  ::freeaddrinfo(found);
  state_ = kConnecting;
  if (rc == 0) {
    tcp_connected_ = true;
    StartSession();
  } else if (error != EINPROGRESS) {
    const int16_t number = ErrorNumberFor(error);
    Fail(number, DescriptionFor(number, error));
  }
}

void TcpSocketControl::StartSession() { SetConnected(); }

short TcpSocketControl::PollInterest() const {
  if (fd_ < 0) return 0;
  if (state_ == kConnecting) {
    return tcp_connected_ ? SessionInterest() : static_cast<short>(POLLOUT);
  }
  if (state_ != kConnected && state_ != kPeerClosing) return 0;
  short interest = SessionInterest();
  if (!eof_ && rx_.size() - rx_pos_ < kMaxUnreadBytes) interest |= POLLIN;
  if (tx_pos_ < tx_.size()) interest |= POLLOUT;
  return interest;
}

bool TcpSocketControl::HasPendingEvent() const {
  return pending_error_.has_value() || (state_ == kConnecting && connect_timeout_ > 0 &&
                                        std::chrono::steady_clock::now() >= connect_deadline_);
}

void TcpSocketControl::Dispatch(short revents) {
  if (state_ == kConnecting && connect_timeout_ > 0 &&
      std::chrono::steady_clock::now() >= connect_deadline_) {
    Fail(kErrTimedOut, DescriptionFor(kErrTimedOut, ETIMEDOUT));
  }
  if (fd_ >= 0 && revents != 0) {
    if (state_ == kConnecting && !tcp_connected_) {
      int error = 0;
      socklen_t length = sizeof error;
      ::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &length);
      if (error != 0) {
        const int16_t number = ErrorNumberFor(error);
        Fail(number, DescriptionFor(number, error));
      } else if (revents & (POLLOUT | POLLERR | POLLHUP)) {
        tcp_connected_ = true;
        StartSession();
      }
    } else if (state_ == kConnecting) {
      ContinueSession(revents);
    } else if (state_ == kConnected || state_ == kPeerClosing) {
      if (revents & POLLOUT) Flush();
      if (fd_ >= 0 && (revents & (POLLIN | POLLHUP | POLLERR))) ReadAvailable();
    }
  }
  if (new_data_) {
    new_data_ = false;
    RaiseDataArrival(BytesReceived());
  }
  if (pending_error_) {
    PendingError error = std::move(*pending_error_);
    pending_error_.reset();
    RaiseError(error.number, error.description, SocketScode(error.number), "Winsock");
  }
  if (fd_ < 0 && !pending_error_) Unregister();
}

void TcpSocketControl::ReadAvailable() {
  while (fd_ >= 0 && !eof_ && rx_.size() - rx_pos_ < kMaxUnreadBytes) {
    if (rx_pos_ > 0 && rx_pos_ == rx_.size()) {
      rx_.clear();
      rx_pos_ = 0;
    }
    // Read into a scratch chunk and append what came: growing rx_ by a whole
    // chunk first would zero-fill 64 kB for every reply of a few bytes.
    thread_local const std::unique_ptr<char[]> chunk(new char[kReadChunk]);
    bool would_block = false;
    std::string failure;
    const long n = RawRecv(chunk.get(), kReadChunk, &would_block, &failure);
    if (n > 0) rx_.append(chunk.get(), static_cast<size_t>(n));
    if (n > 0) {
      new_data_ = true;
      // A short read drained the socket; anything later is reported by poll.
      if (static_cast<size_t>(n) < kReadChunk) break;
      continue;
    }
    if (n == 0) {
      eof_ = true;
      state_ = kPeerClosing;
      break;
    }
    if (would_block) break;
    Fail(kErrConnectionReset,
         failure.empty() ? DescriptionFor(kErrConnectionReset, ECONNRESET) : failure);
    break;
  }
}

void TcpSocketControl::Flush() {
  while (fd_ >= 0 && tx_pos_ < tx_.size()) {
    bool would_block = false;
    std::string failure;
    const long n = RawSend(tx_.data() + tx_pos_, tx_.size() - tx_pos_, &would_block, &failure);
    if (n > 0) {
      tx_pos_ += static_cast<size_t>(n);
      continue;
    }
    if (would_block) return;
    Fail(kErrConnectionReset,
         failure.empty() ? DescriptionFor(kErrConnectionReset, EPIPE) : failure);
    return;
  }
  tx_.clear();
  tx_pos_ = 0;
}

long TcpSocketControl::RawRecv(char* buffer, size_t size, bool* would_block, std::string* failure) {
  for (;;) {
    const ssize_t n = ::recv(fd_, buffer, size, 0);
    if (n >= 0) return static_cast<long>(n);
    if (errno == EINTR) continue;
    *would_block = (errno == EAGAIN || errno == EWOULDBLOCK);
    if (!*would_block) *failure = DescriptionFor(ErrorNumberFor(errno), errno);
    return -1;
  }
}

long TcpSocketControl::RawSend(const char* buffer, size_t size, bool* would_block,
                               std::string* failure) {
  for (;;) {
    const ssize_t n = ::send(fd_, buffer, size, MSG_NOSIGNAL);
    if (n >= 0) return static_cast<long>(n);
    if (errno == EINTR) continue;
    *would_block = (errno == EAGAIN || errno == EWOULDBLOCK);
    if (!*would_block) *failure = DescriptionFor(ErrorNumberFor(errno), errno);
    return -1;
  }
}

void TcpSocketControl::SendData(std::string_view data) {
  if (state_ != kConnected && state_ != kPeerClosing) {
    Raise(kErrWrongState,
          "Wrong protocol or connection state for the requested transaction or request");
  }
  if (fd_ < 0) return;
  if (tx_pos_ == tx_.size()) {
    tx_.clear();
    tx_pos_ = 0;
  }
  tx_.append(data);
  Flush();
}

void TcpSocketControl::GetData(std::string& data, int32_t /*type*/, int32_t max_len) {
  const size_t available = rx_.size() - rx_pos_;
  const size_t n = max_len > 0 ? std::min(available, static_cast<size_t>(max_len)) : available;
  data.assign(rx_, rx_pos_, n);
  rx_pos_ += n;
  if (rx_pos_ == rx_.size()) {
    rx_.clear();
    rx_pos_ = 0;
  }
}

void TcpSocketControl::Fail(int16_t number, std::string description) {
  CloseDescriptor();
  state_ = kError;
  pending_error_ = PendingError{number, std::move(description)};
}

void TcpSocketControl::CloseDescriptor() {
  if (fd_ >= 0) {
    EndSession();
    ::close(fd_);
    fd_ = -1;
  }
}

void TcpSocketControl::Close() {
  CloseDescriptor();
  state_ = kClosed;
  rx_.clear();
  rx_pos_ = 0;
  tx_.clear();
  tx_pos_ = 0;
  eof_ = false;
  new_data_ = false;
  tcp_connected_ = false;
  pending_error_.reset();
  Unregister();
}

QUILLO_REGISTER_CLASS(TcpSocketControl, Creatable::kPublic);

}  // namespace quillo
