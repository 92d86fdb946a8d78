// A scripted SMTP peer for tests: a listener on 127.0.0.1 (ephemeral port)
// served by its own thread, one connection at a time, each run by a script.
//
// The default script (Responder) answers like a small SMTP server with
// configurable reply texts; a reply text is sent as it stands (so it may hold
// several lines, garbage or nothing at all, which means silence). Every
// connection is recorded: the command lines received and the message data.
//
//   quillo::testing::ScriptedSmtpPeer peer;   // a well-behaved server
//   smtp->Port(peer.port());
//   ...
//   EXPECT_EQ(peer.Sessions()[0].commands[0], "EHLO example.com");
//
// Thread-safety: Sessions() and connections() may be read from any thread.
#ifndef QUILLO_TESTS_SUPPORT_SCRIPTED_SMTP_PEER_H_
#define QUILLO_TESTS_SUPPORT_SCRIPTED_SMTP_PEER_H_

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace quillo::testing {

// What the peer saw on one connection.
struct PeerSession {
  std::vector<std::string> commands;  // Command lines without their CRLF.
  std::string data;                   // Message bytes after DATA, end marker included.
  bool closed_by_client = false;      // The client closed before the script ended.
};

// One accepted connection, as seen by a script.
class PeerConnection {
 public:
  PeerConnection(int fd, const std::atomic<bool>* stop, PeerSession* session)
      : fd_(fd), stop_(stop), session_(session) {}
  // Sends `text` as it stands.
  void Send(const std::string& text);
  // The next line without its CRLF (recorded as a command), or nullopt on
  // end of stream, timeout or stop.
  std::optional<std::string> ReadLine(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // The message data up to and including "\r\n.\r\n" (recorded), or nullopt.
  std::optional<std::string> ReadData(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // Waits until the client closes (or the timeout passes).
  void WaitForClose(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  PeerSession& session() { return *session_; }

 private:
  bool Fill(std::chrono::milliseconds timeout);
  int fd_;
  const std::atomic<bool>* stop_;
  PeerSession* session_;
  std::string buffer_;
};

// Reply texts of the default script. Each is sent as it stands; empty means
// no reply at all.
struct PeerReplies {
  std::string greeting = "220 peer.test ESMTP ready\r\n";
  std::string ehlo = "250-peer.test\r\n250-AUTH LOGIN\r\n250 8BITMIME\r\n";
  std::string helo = "250 peer.test\r\n";
  std::string auth = "334 VXNlcm5hbWU6\r\n";
  std::string auth_user = "334 UGFzc3dvcmQ6\r\n";
  std::string auth_password = "235 2.7.0 Authentication successful\r\n";
  std::string mail = "250 2.1.0 Ok\r\n";
  std::string rcpt = "250 2.1.5 Ok\r\n";
  std::string data = "354 End data with <CR><LF>.<CR><LF>\r\n";
  std::string after_data = "250 2.0.0 Ok: queued\r\n";
  std::string quit = "221 2.0.0 Bye\r\n";
  bool close_after_greeting = false;  // Close right after the greeting.
  // Answer DATA with 554 when no recipient of the transaction was accepted,
  // as Postfix does; otherwise DATA always gets `data`.
  bool refuse_data_without_recipients = false;
};

// The default script: a small SMTP server with the given replies.
void Respond(PeerConnection& connection, const PeerReplies& replies);

class ScriptedSmtpPeer {
 public:
  using Script = std::function<void(PeerConnection&)>;
  // A well-behaved server (default replies).
  ScriptedSmtpPeer();
  // A server with the given replies.
  explicit ScriptedSmtpPeer(PeerReplies replies);
  // A server run by `script` on every connection.
  explicit ScriptedSmtpPeer(Script script);
  ~ScriptedSmtpPeer();
  ScriptedSmtpPeer(const ScriptedSmtpPeer&) = delete;
  ScriptedSmtpPeer& operator=(const ScriptedSmtpPeer&) = delete;

  int port() const { return port_; }
  // A copy of the sessions so far (a session is complete once its script ended).
  std::vector<PeerSession> Sessions() const;
  // Connections accepted so far.
  int connections() const { return connections_.load(); }
  // Waits until `n` scripts have ended (or 10 s pass).
  void WaitForSessions(int n) const;

 private:
  void Run();
  Script script_;
  int listen_fd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> connections_{0};
  std::atomic<int> finished_{0};
  mutable std::mutex mutex_;
  std::vector<PeerSession> sessions_;
  std::thread thread_;
};

}  // namespace quillo::testing

#endif  // QUILLO_TESTS_SUPPORT_SCRIPTED_SMTP_PEER_H_
