// The sending engine of send and tick: several SMTP connections at once,
// limits on the rate per account and per recipient domain, and the retry
// schedule of deferred messages.
//
// Each connection is a thread with a deliverer of its own (its own Mailer,
// so its own reused SMTP session); a group of claimed messages is handed to
// the pool, each message goes out on whichever connection is free, and the
// caller gets the group back when every message in it has ended. The
// database is used by the calling thread only, before and after a group,
// never while the connections work (a deliverer that must look something up
// holds a lock of its own for it).
#ifndef QUILLO_CLI_SEND_ENGINE_H_
#define QUILLO_CLI_SEND_ENGINE_H_

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "commands.h"
#include "smtp/session.h"

namespace quillo::cli {

// How one delivery attempt ended.
struct Attempt {
  smtp::OutcomeKind kind = smtp::OutcomeKind::kFailed;
  std::string reason;        // Never empty when not accepted.
  bool unreachable = false;  // The server itself could not be used (nothing got through yet).
  bool suppressed = false;   // Not sent: the address is on the suppression list.
  bool transport = false;    // The connection failed: worth another try, like a 4xx.
  // Refused by the server itself (5xx): final. A refusal of ours before
  // sending ("not sent: ...", bad data) is not: fixed data goes out later.
  bool server_refused = false;
};

struct SendJob;

// Delivers one claimed message (`job`: the queued message, its client and
// subject). `next` is the message the same connection sends right after it,
// which a deliverer may begin early (see smtp::Session::Send); null when
// none follows, or when messages must go one at a time (a rate limit).
using DeliverFunction = std::function<Attempt(const SendJob& job, const SendJob* next)>;

// Messages per second in "50/s", "3000/m", "100000/h" or "50"; 0 for "0"
// (no limit). Throws CommandError naming `option`.
double ParseRate(const std::string& text, const std::string& option);

// Seconds in "4h", "30m", "90s", "2d" or "120". Throws CommandError.
long ParseDuration(const std::string& text, const std::string& option);

// The wait before the next attempt of a message deferred `attempts` times:
// one second, doubling up to ten minutes, then spread by a random factor
// between 0.5 and 1.5 so that messages deferred together do not all come
// back at once.
std::chrono::milliseconds RetryDelay(int attempts);

// Spaces messages so that each key (an account, a domain) gets at most
// `per_second` of them; shared by every connection.
class RateLimiter {
 public:
  explicit RateLimiter(double per_second) : per_second_(per_second) {}
  // Waits until one more message for `key` keeps to the rate.
  void Wait(const std::string& key);

 private:
  double per_second_;
  std::mutex mutex_;
  std::map<std::string, std::chrono::steady_clock::time_point> next_;
};

// One claimed message on its way through the pool.
struct SendJob {
  const QueuedMessage* message = nullptr;
  Dispatch client;
  std::string subject;
  Attempt attempt;
};

// Connections that each work through a list of jobs of their own, so the
// caller can write one connection's outcomes (and give it its next jobs)
// while the others go on sending.
class ConnectionPool {
 public:
  // One connection per deliverer. With a single one the calling thread
  // sends (the library's documented classes need that); with more, each
  // has a thread. `account_rate` and `domain_rate` are messages per second
  // for all connections together, 0 for no limit.
  ConnectionPool(std::vector<DeliverFunction> deliverers, double account_rate, double domain_rate);
  ~ConnectionPool();
  ConnectionPool(const ConnectionPool&) = delete;
  ConnectionPool& operator=(const ConnectionPool&) = delete;

  std::size_t size() const { return deliverers_.size(); }

  // Gives connection `connection`, which must be idle, `jobs` (which must
  // live until WaitAny has returned the connection) and returns at once;
  // with a single connection the work is done in WaitAny, on the calling
  // thread.
  void Start(std::size_t connection, const std::vector<SendJob*>& jobs);
  // Waits until a started connection has ended its jobs, and returns every
  // one that has; they are idle again. Empty when none was started.
  std::vector<std::size_t> WaitAny();

 private:
  void Work(std::size_t connection);
  // Delivers `jobs` in order on `connection`.
  void DeliverAll(std::size_t connection, const std::vector<SendJob*>& jobs);

  std::vector<DeliverFunction> deliverers_;
  RateLimiter account_limit_;
  RateLimiter domain_limit_;
  bool one_at_a_time_;  // A rate limit spaces every message: none is begun early.
  std::vector<std::thread> threads_;
  std::mutex mutex_;
  std::vector<std::condition_variable> work_ready_;  // One per connection.
  std::condition_variable work_done_;
  // Per connection: its jobs while started, and whether it has ended them.
  std::vector<const std::vector<SendJob*>*> jobs_;
  std::vector<bool> ended_;
  bool stopping_ = false;
};

}  // namespace quillo::cli

#endif  // QUILLO_CLI_SEND_ENGINE_H_
