// A scripted SMTP peer for tests: listens on 127.0.0.1 (a free port), serves
// any number of dialogues one after another with fixed positive replies,
// and records the commands and the message texts it received. It runs on
// its own thread, every wait is bounded, and it stops on destruction.
#ifndef QUILLO_TESTS_MESSAGE_SMTP_PEER_H_
#define QUILLO_TESTS_MESSAGE_SMTP_PEER_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quillo::message_test {

class ScriptedSmtpPeer {
 public:
  ScriptedSmtpPeer() {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    ::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    ::listen(listener_, 8);
    socklen_t len = sizeof addr;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { Serve(); });
  }
  ~ScriptedSmtpPeer() {
    stop_ = true;
    thread_.join();
    ::close(listener_);
  }
  ScriptedSmtpPeer(const ScriptedSmtpPeer&) = delete;
  ScriptedSmtpPeer& operator=(const ScriptedSmtpPeer&) = delete;

  // The port it listens on.
  int port() const { return port_; }
  // Every command line received, without CR LF, in order.
  std::vector<std::string> Commands() {
    std::lock_guard<std::mutex> lock(mutex_);
    return commands_;
  }
  // The text of every message received (between DATA and the final dot).
  std::vector<std::string> Messages() {
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
  }

 private:
  // Reads one line (up to CR LF) from `fd`; false on close, error or stop.
  bool ReadLine(int fd, std::string& buffer, std::string& line) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (true) {
      const size_t end = buffer.find("\r\n");
      if (end != std::string::npos) {
        line = buffer.substr(0, end);
        buffer.erase(0, end + 2);
        return true;
      }
      if (stop_ || std::chrono::steady_clock::now() > deadline) return false;
      pollfd p{fd, POLLIN, 0};
      if (::poll(&p, 1, 20) <= 0) continue;
      char chunk[4096];
      const ssize_t n = ::read(fd, chunk, sizeof chunk);
      if (n <= 0) return false;
      buffer.append(chunk, static_cast<size_t>(n));
    }
  }

  void Reply(int fd, const std::string& text) {
    const std::string line = text + "\r\n";
    ssize_t ignored = ::write(fd, line.data(), line.size());
    (void)ignored;
  }

  void Dialogue(int fd) {
    std::string buffer;
    std::string line;
    Reply(fd, "220 peer ready");
    while (ReadLine(fd, buffer, line)) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        commands_.push_back(line);
      }
      const std::string verb = line.substr(0, 4);
      if (verb == "EHLO" || verb == "HELO") {
        Reply(fd, "250 peer");
      } else if (verb == "DATA") {
        Reply(fd, "354 go ahead");
        std::string text;
        while (ReadLine(fd, buffer, line) && line != ".") {
          if (line.rfind("..", 0) == 0) line.erase(0, 1);  // Undo dot-stuffing.
          text += line + "\r\n";
        }
        {
          std::lock_guard<std::mutex> lock(mutex_);
          messages_.push_back(text);
        }
        Reply(fd, "250 queued");
      } else if (verb == "QUIT") {
        Reply(fd, "221 bye");
        return;
      } else {
        Reply(fd, "250 ok");
      }
    }
  }

  void Serve() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!stop_ && std::chrono::steady_clock::now() < deadline) {
      pollfd p{listener_, POLLIN, 0};
      if (::poll(&p, 1, 20) <= 0) continue;
      const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;
      Dialogue(fd);
      ::close(fd);
    }
  }

  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::mutex mutex_;
  std::vector<std::string> commands_;
  std::vector<std::string> messages_;
};

}  // namespace quillo::message_test

#endif  // QUILLO_TESTS_MESSAGE_SMTP_PEER_H_
