// The scripted SMTP peer: a loopback listener served by one thread.
#include "support/scripted_smtp_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace quillo::testing {
namespace {

using Clock = std::chrono::steady_clock;

std::string Verb(const std::string& line) {
  std::string verb = line.substr(0, line.find(' '));
  for (char& c : verb) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return verb;
}

}  // namespace

void PeerConnection::Send(const std::string& text) {
  size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t n = ::send(fd_, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return;
    sent += static_cast<size_t>(n);
  }
}

bool PeerConnection::Fill(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!stop_->load() && Clock::now() < deadline) {
    pollfd fd{fd_, POLLIN, 0};
    if (::poll(&fd, 1, 20) <= 0) continue;
    char chunk[65536];
    const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n <= 0) {
      session_->closed_by_client = true;
      return false;
    }
    buffer_.append(chunk, static_cast<size_t>(n));
    return true;
  }
  return false;
}

std::optional<std::string> PeerConnection::ReadLine(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    const size_t end = buffer_.find("\r\n");
    if (end != std::string::npos) {
      std::string line = buffer_.substr(0, end);
      buffer_.erase(0, end + 2);
      session_->commands.push_back(line);
      return line;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0 || !Fill(left)) return std::nullopt;
  }
}

std::optional<std::string> PeerConnection::ReadData(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  size_t searched = 0;  // No end marker starts before this position.
  for (;;) {
    const size_t end = buffer_.find("\r\n.\r\n", searched);
    searched = buffer_.size() >= 4 ? buffer_.size() - 4 : 0;
    if (end != std::string::npos) {
      std::string data = buffer_.substr(0, end + 5);
      buffer_.erase(0, end + 5);
      session_->data = data;
      return data;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0 || !Fill(left)) return std::nullopt;
  }
}

void PeerConnection::WaitForClose(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (Clock::now() < deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (!Fill(left)) return;
  }
}

void Respond(PeerConnection& c, const PeerReplies& replies) {
  c.Send(replies.greeting);
  if (replies.close_after_greeting) return;
  int recipients = 0;  // Accepted in the open transaction.
  for (;;) {
    std::optional<std::string> line = c.ReadLine();
    if (!line) return;
    const std::string verb = Verb(*line);
    if (verb == "EHLO") {
      c.Send(replies.ehlo);
    } else if (verb == "HELO") {
      c.Send(replies.helo);
    } else if (verb == "AUTH") {
      c.Send(replies.auth);
      if (!c.ReadLine()) return;
      c.Send(replies.auth_user);
      if (!c.ReadLine()) return;
      c.Send(replies.auth_password);
    } else if (verb == "MAIL") {
      recipients = 0;
      c.Send(replies.mail);
    } else if (verb == "RCPT") {
      if (replies.rcpt[0] == '2') ++recipients;
      c.Send(replies.rcpt);
    } else if (verb == "DATA" && recipients == 0 && replies.refuse_data_without_recipients) {
      c.Send("554 5.5.1 Error: no valid recipients\r\n");
    } else if (verb == "DATA") {
      c.Send(replies.data);
      if (!c.ReadData()) return;
      c.Send(replies.after_data);
    } else if (verb == "RSET") {
      c.Send("250 2.0.0 Ok\r\n");
    } else if (verb == "QUIT") {
      c.Send(replies.quit);
      c.WaitForClose(std::chrono::seconds(2));
      return;
    } else {
      c.Send("500 5.5.2 Error: command not recognized\r\n");
    }
  }
}

ScriptedSmtpPeer::ScriptedSmtpPeer() : ScriptedSmtpPeer(PeerReplies{}) {}

ScriptedSmtpPeer::ScriptedSmtpPeer(PeerReplies replies)
    : ScriptedSmtpPeer(Script([replies](PeerConnection& c) { Respond(c, replies); })) {}

ScriptedSmtpPeer::ScriptedSmtpPeer(Script script) : script_(std::move(script)) {
  listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listen_fd_ < 0) throw std::runtime_error("socket");
  const int one = 1;
  ::setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  if (::bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listen_fd_, 16) != 0) {
    throw std::runtime_error("bind/listen");
  }
  socklen_t length = sizeof address;
  ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { Run(); });
}

ScriptedSmtpPeer::~ScriptedSmtpPeer() {
  stop_ = true;
  thread_.join();
  ::close(listen_fd_);
}

void ScriptedSmtpPeer::Run() {
  while (!stop_.load()) {
    pollfd fd{listen_fd_, POLLIN, 0};
    if (::poll(&fd, 1, 20) <= 0) continue;
    const int client = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    ++connections_;
    PeerSession session;
    PeerConnection connection(client, &stop_, &session);
    script_(connection);
    ::close(client);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      sessions_.push_back(std::move(session));
    }
    ++finished_;
  }
}

std::vector<PeerSession> ScriptedSmtpPeer::Sessions() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sessions_;
}

void ScriptedSmtpPeer::WaitForSessions(int n) const {
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (finished_.load() < n && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

}  // namespace quillo::testing
