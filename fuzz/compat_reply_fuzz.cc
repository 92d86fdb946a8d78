// Fuzzes the reply reading of the library's documented SMTP client
// (ardESMTP): a loopback peer answers each connection with the input bytes
// as they stand and then resets the connection. The client must end every dialogue
// (in a reply code or a transport failure) without crashing, and leave its
// socket closed.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/event_loop.h"
#include "platform/tcp_socket.h"
#include "smtp/ard_esmtp.h"

namespace {

// A listener on 127.0.0.1 that serves one connection per input: sends the
// input, reads what the client sends until it goes quiet, and resets.
class Peer {
 public:
  Peer() {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) std::abort();
    socklen_t len = sizeof addr;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    if (::listen(listener_, 4) != 0) std::abort();
    std::thread([this] { Serve(); }).detach();
  }
  int port() const { return port_; }
  void Answer(std::string bytes) {
    std::lock_guard lock(mutex_);
    answer_ = std::move(bytes);
  }

 private:
  void Serve() {
    for (;;) {
      int fd = ::accept(listener_, nullptr, nullptr);
      if (fd < 0) continue;
      std::string answer;
      {
        std::lock_guard lock(mutex_);
        answer = answer_;
      }
      for (size_t sent = 0; sent < answer.size();) {
        ssize_t n = ::send(fd, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
      }
      // The client ignores a peer's orderly close and waits for its reply
      // timeout (at least a second). Once it has gone quiet, waiting for a
      // reply that will not come, the connection is reset, which it takes
      // as a transport failure at once.
      char sink[4096];
      pollfd p{fd, POLLIN, 0};
      while (::poll(&p, 1, 10) > 0 && ::recv(fd, sink, sizeof sink, 0) > 0) {
      }
      linger reset{1, 0};
      ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
      ::close(fd);
    }
  }
  int listener_ = -1;
  int port_ = 0;
  std::mutex mutex_;
  std::string answer_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Peer* peer = new Peer;
  if (size == 0) return 0;
  // The first byte picks the dialogue: with or without AUTH LOGIN.
  const bool auth = data[0] & 1;
  peer->Answer(std::string(reinterpret_cast<const char*>(data) + 1, size - 1));

  auto socket = std::make_shared<quillo::TcpSocketControl>();
  auto smtp = std::make_shared<quillo::ardESMTP>();
  smtp->WS(socket);
  quillo::ForwardEvents(socket, smtp);
  smtp->MailServer("127.0.0.1");
  smtp->Port(peer->port());
  smtp->Domain("client.test");
  smtp->Sender("sender@client.test");
  smtp->MsgSubject("Subject");
  smtp->MsgBody("Body\r\n.\r\nafter a dot line");
  smtp->CommandTimeout(1);
  smtp->CommandDataTimeout(1);
  if (auth) {
    smtp->UseAuthentication(true);
    smtp->AccountName("user");
    smtp->AccountPassword("secret");
  }
  smtp->AddRecipient("one@peer.test");
  smtp->AddRecipient("two@peer.test");
  smtp->Send();
  if (socket->State() != quillo::SocketControl::kClosed) std::abort();
  return 0;
}
