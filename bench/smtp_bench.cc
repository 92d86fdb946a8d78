// SMTP client throughput against a minimal blocking client, and the Base64
// attachment part against the plain encoder.
//
// A sink on a thread of this process answers SMTP on 127.0.0.1 (greeting,
// EHLO, MAIL, RCPT, DATA, QUIT, nothing else). Each round sends 2,000
// messages of 2 KB, one connection per recipient, first with the anchor (a
// blocking client with plain sockets doing the same dialogue) and then with
// ardESMTP over TcpSocketControl and the event pump. Reported: messages per
// second (wall clock) and CPU time per message of the sending thread, for
// both, and their ratios. Then a 10 MB attachment part (ardESMTPAttachment:
// file read, Base64, 74-character lines, header) against Base64Encode of the
// same bytes.
//
// Usage: smtp_bench [messages] [rounds]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "codec/base64.h"
#include "platform/event_loop.h"
#include "platform/tcp_socket.h"
#include "smtp/ard_esmtp.h"
#include "smtp/ard_esmtp_attachment.h"

namespace {

using Clock = std::chrono::steady_clock;

double ThreadCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// Reads CRLF lines from a blocking socket.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd) {}
  bool Line(std::string* line) {
    for (;;) {
      const size_t end = buffer_.find("\r\n", pos_);
      if (end != std::string::npos) {
        line->assign(buffer_, pos_, end - pos_);
        pos_ = end + 2;
        return true;
      }
      if (!Fill()) return false;
    }
  }
  // Skips past the next "\r\n.\r\n".
  bool SkipData() {
    for (;;) {
      const size_t end = buffer_.find("\r\n.\r\n", pos_ > 2 ? pos_ - 2 : 0);
      if (end != std::string::npos) {
        pos_ = end + 5;
        return true;
      }
      if (!Fill()) return false;
    }
  }

 private:
  bool Fill() {
    if (pos_ > 0) {
      buffer_.erase(0, pos_);
      pos_ = 0;
    }
    char chunk[16384];
    const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n <= 0) return false;
    buffer_.append(chunk, static_cast<size_t>(n));
    return true;
  }
  int fd_;
  std::string buffer_;
  size_t pos_ = 0;
};

void SendAll(int fd, const std::string& text) {
  size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t n = ::send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return;
    sent += static_cast<size_t>(n);
  }
}

// The sink: one connection at a time, which is how both clients send.
class Sink {
 public:
  Sink() {
    listen_fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    ::setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(listen_fd_, 128);
    socklen_t length = sizeof address;
    ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Run(); });
  }
  ~Sink() {
    stop_ = true;
    thread_.join();
    ::close(listen_fd_);
  }
  int port() const { return port_; }
  long messages() const { return messages_.load(); }

 private:
  void Run() {
    while (!stop_) {
      pollfd p{listen_fd_, POLLIN, 0};
      if (::poll(&p, 1, 50) <= 0) continue;
      const int fd = ::accept(listen_fd_, nullptr, nullptr);
      if (fd < 0) continue;
      const int one = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      Serve(fd);
      ::close(fd);
    }
  }
  void Serve(int fd) {
    LineReader reader(fd);
    SendAll(fd, "220 sink ESMTP\r\n");
    std::string line;
    while (reader.Line(&line)) {
      if (line.rfind("EHLO", 0) == 0) {
        SendAll(fd, "250-sink\r\n250 8BITMIME\r\n");
      } else if (line.rfind("DATA", 0) == 0) {
        SendAll(fd, "354 go ahead\r\n");
        if (!reader.SkipData()) return;
        ++messages_;
        SendAll(fd, "250 queued\r\n");
      } else if (line.rfind("QUIT", 0) == 0) {
        SendAll(fd, "221 bye\r\n");
        return;
      } else {
        SendAll(fd, "250 ok\r\n");
      }
    }
  }
  int listen_fd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<long> messages_{0};
  std::thread thread_;
};

std::string Body() {
  std::string body;
  while (body.size() < 2000) body += "The quick brown fox jumps over the lazy dog, 0123456789.\r\n";
  return body.substr(0, 2000);
}

// Reads one reply (skipping continuation lines); returns its code.
int Reply(LineReader& reader) {
  std::string line;
  while (reader.Line(&line)) {
    if (line.size() >= 4 && line[3] == '-') continue;
    return std::atoi(line.substr(0, 3).c_str());
  }
  return 0;
}

// The anchor: a minimal blocking client doing the same dialogue.
long AnchorSend(int port, int messages, const std::string& body) {
  long ok = 0;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  for (int i = 0; i < messages; ++i) {
    const std::string rcpt = "user" + std::to_string(i) + "@sink.test";
    const std::string message = "From: <sender@bench.test>\r\nTo: " + rcpt +
                                "\r\nSubject: Benchmark\r\nMIME-Version: 1.0\r\n"
                                "Content-type: text/plain\r\nContent-Transfer-Encoding: 7bit\r\n"
                                "X-Mailer: anchor\r\nX-MimeOLE: anchor\r\n\r\n" +
                                body + "\r\n.\r\n";
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      ::close(fd);
      continue;
    }
    LineReader reader(fd);
    bool good = Reply(reader) == 220;
    SendAll(fd, "EHLO bench.test\r\n");
    good = good && Reply(reader) == 250;
    SendAll(fd, "MAIL FROM: <sender@bench.test>\r\n");
    good = good && Reply(reader) == 250;
    SendAll(fd, "RCPT TO: <" + rcpt + ">\r\n");
    good = good && Reply(reader) == 250;
    SendAll(fd, "DATA\r\n");
    good = good && Reply(reader) == 354;
    SendAll(fd, message);
    good = good && Reply(reader) == 250;
    SendAll(fd, "QUIT\r\n");
    good = good && Reply(reader) == 221;
    ::close(fd);
    if (good) ++ok;
  }
  return ok;
}

// The library: one ardESMTP, one recipient per dialogue.
void LibrarySend(int port, int messages, const std::string& body) {
  auto socket = std::make_shared<quillo::TcpSocketControl>();
  auto smtp = std::make_shared<quillo::ardESMTP>();
  smtp->WS(socket);
  quillo::ForwardEvents(socket, smtp);
  smtp->MailServer("127.0.0.1");
  smtp->Domain("bench.test");
  smtp->Port(port);
  smtp->Sender("sender@bench.test");
  smtp->MsgSubject("Benchmark");
  smtp->MsgBody(body);
  smtp->CommandTimeout(10);
  for (int i = 0; i < messages; ++i) smtp->AddRecipient("user" + std::to_string(i) + "@sink.test");
  smtp->Send();
  if (smtp->rc() != 221 || smtp->TransportFailed()) {
    std::fprintf(stderr, "library run failed: rc %d\n%s\n", smtp->rc(), smtp->Transcript().c_str());
  }
}

struct Result {
  double wall = 0;
  double cpu = 0;
};

template <class F>
Result Measure(F run) {
  const auto start = Clock::now();
  const double cpu = ThreadCpuSeconds();
  run();
  Result r;
  r.cpu = ThreadCpuSeconds() - cpu;
  r.wall = std::chrono::duration<double>(Clock::now() - start).count();
  return r;
}

void AttachmentBenchmark() {
  const std::filesystem::path dir = std::filesystem::temp_directory_path() / "quillo-smtp-bench";
  std::filesystem::create_directories(dir);
  const std::string path = (dir / "ten.bin").string();
  std::string bytes(10u * 1024 * 1024, '\0');
  unsigned state = 12345;
  for (auto& c : bytes) {
    state = state * 1103515245u + 12345u;
    c = static_cast<char>(state >> 24);
  }
  std::ofstream(path, std::ios::binary) << bytes;

  double best_part = 1e9, best_lines = 1e9, best_plain = 1e9;
  double best_lines_fresh = 1e9, best_plain_fresh = 1e9;
  size_t sink = 0;
  std::string lines, plain;  // Reused: both encoders write to warm memory.
  for (int round = 0; round < 7; ++round) {
    const double a = ThreadCpuSeconds();
    {
      quillo::ardESMTPAttachment part;
      part.FileName(path);
      part.CreateAttachment();
      sink += part.Attachment().size();
    }
    const double b = ThreadCpuSeconds();
    lines.resize(0);
    quillo::AppendBase64Lines(bytes, &lines);
    sink += lines.size();
    const double c = ThreadCpuSeconds();
    quillo::Base64EncodeTo(bytes, &plain);
    sink += plain.size();
    const double d = ThreadCpuSeconds();
    {
      std::string fresh;
      quillo::AppendBase64Lines(bytes, &fresh);
      sink += fresh.size();
    }
    const double e = ThreadCpuSeconds();
    sink += quillo::Base64Encode(bytes).size();
    const double f = ThreadCpuSeconds();
    best_part = std::min(best_part, b - a);
    best_lines = std::min(best_lines, c - b);
    best_plain = std::min(best_plain, d - c);
    best_lines_fresh = std::min(best_lines_fresh, e - d);
    best_plain_fresh = std::min(best_plain_fresh, f - e);
  }
  std::filesystem::remove_all(dir);
  const double mb = static_cast<double>(bytes.size()) / (1024.0 * 1024.0);
  std::printf("\n10 MB attachment part (best of 7, MB of input per CPU second)\n");
  std::printf("  %-50s %8.1f MB/s\n", "plain encoder, fresh output (Base64Encode)",
              mb / best_plain_fresh);
  std::printf("  %-50s %8.1f MB/s  ratio %.2f\n", "part body in 74-char lines, fresh output",
              mb / best_lines_fresh, best_plain_fresh / best_lines_fresh);
  std::printf("  %-50s %8.1f MB/s\n", "plain encoder, reused output (Base64EncodeTo)",
              mb / best_plain);
  std::printf("  %-50s %8.1f MB/s  ratio %.2f\n", "part body in 74-char lines, reused output",
              mb / best_lines, best_plain / best_lines);
  std::printf("  %-50s %8.1f MB/s  ratio %.2f (fresh)\n",
              "CreateAttachment (file read + header + body)", mb / best_part,
              best_plain_fresh / best_part);
  std::printf("  (bytes checked: %zu)\n", sink);
}

}  // namespace

int main(int argc, char** argv) {
  const int messages = argc > 1 ? std::atoi(argv[1]) : 2000;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 3;
  const std::string body = Body();
  Sink sink;
  // Warm-up: both paths once, a few messages.
  AnchorSend(sink.port(), 20, body);
  LibrarySend(sink.port(), 20, body);

  std::vector<Result> anchor, library;
  for (int round = 0; round < rounds; ++round) {
    const long before = sink.messages();
    anchor.push_back(Measure([&] { AnchorSend(sink.port(), messages, body); }));
    const long mid = sink.messages();
    library.push_back(Measure([&] { LibrarySend(sink.port(), messages, body); }));
    const long after = sink.messages();
    if (mid - before != messages || after - mid != messages) {
      std::fprintf(stderr, "round %d: sink saw %ld anchor and %ld library messages\n", round,
                   mid - before, after - mid);
    }
  }
  auto median = [](std::vector<Result> v, bool wall) {
    std::sort(v.begin(), v.end(), [&](const Result& a, const Result& b) {
      return wall ? a.wall < b.wall : a.cpu < b.cpu;
    });
    const Result& m = v[v.size() / 2];
    return wall ? m.wall : m.cpu;
  };
  const double aw = median(anchor, true), ac = median(anchor, false);
  const double lw = median(library, true), lc = median(library, false);
  std::printf("SMTP: %d messages of 2 KB, one connection each, loopback sink, median of %d\n",
              messages, rounds);
  std::printf("  %-30s %10s %16s\n", "client", "msg/s", "CPU us/msg");
  std::printf("  %-30s %10.0f %16.1f\n", "anchor (blocking sockets)", messages / aw,
              1e6 * ac / messages);
  std::printf("  %-30s %10.0f %16.1f\n", "ardESMTP + TcpSocketControl", messages / lw,
              1e6 * lc / messages);
  std::printf("  throughput ratio (library/anchor) %.2f   CPU ratio (library/anchor) %.2f\n",
              aw / lw, lc / ac);
  AttachmentBenchmark();
  return 0;
}
