// session_send: delivers COUNT copies of a message of SIZE bytes through our
// SMTP session to HOST:PORT, reusing one connection ("reuse") or opening one
// per message ("per-message"), and prints
//   <messages> <seconds> <user cpu seconds> <system cpu seconds>
// for bench/smtp_session_bench.sh, which compares it with Postfix's
// smtp-source on the same smtp-sink.
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "smtp/session.h"

namespace {

double Seconds(const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fprintf(stderr, "usage: session_send HOST PORT COUNT SIZE reuse|per-message\n");
    return 2;
  }
  quillo::smtp::SessionOptions options;
  options.host = argv[1];
  options.port = std::atoi(argv[2]);
  options.tls = quillo::smtp::TlsMode::kNone;
  options.helo_name = "bench.example.test";
  long count = std::atol(argv[3]);
  size_t size = static_cast<size_t>(std::atol(argv[4]));
  bool reuse = std::string(argv[5]) == "reuse";
  if (!reuse) options.max_messages_per_connection = 1;

  std::string message =
      "From: <bench@example.test>\r\nTo: <sink@example.test>\r\n"
      "Subject: bench\r\n\r\n";
  while (message.size() < size) {
    message += std::string(std::min<size_t>(76, size - message.size() + 2), 'x').substr(2) + "\r\n";
  }
  quillo::smtp::Envelope envelope{"bench@example.test", {"sink@example.test"}, false, false};
  quillo::smtp::Session session(options);
  auto start = std::chrono::steady_clock::now();
  long accepted = 0;
  for (long i = 0; i < count; ++i) {
    quillo::smtp::Outcome o = session.Send(envelope, message);
    if (o.kind == quillo::smtp::OutcomeKind::kAccepted) {
      ++accepted;
    } else if (accepted == 0) {
      std::fprintf(stderr, "session_send: %s\n", o.reason.c_str());
      return 1;
    }
  }
  session.Close();
  double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("%ld %.3f %.3f %.3f\n", accepted, elapsed, Seconds(usage.ru_utime),
              Seconds(usage.ru_stime));
  return accepted == count ? 0 : 1;
}
