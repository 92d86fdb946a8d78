#include "send_engine.h"

#include <cmath>
#include <cstdlib>
#include <random>

#include "mail/address.h"
#include "platform/text.h"

namespace quillo::cli {

namespace {

// The number and the unit letter of "50/s", "4h" and the like.
bool SplitNumber(const std::string& text, double* number, std::string* unit) {
  char* end = nullptr;
  *number = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || !std::isfinite(*number) || *number < 0) return false;
  *unit = end;
  return true;
}

}  // namespace

double ParseRate(const std::string& text, const std::string& option) {
  double number = 0;
  std::string unit;
  if (SplitNumber(text, &number, &unit)) {
    if (unit.empty() || unit == "/s") return number;
    if (unit == "/m") return number / 60;
    if (unit == "/h") return number / 3600;
  }
  throw CommandError(option +
                     " wants messages per second, minute or hour (50/s, 3000/m, "
                     "100000/h), not '" +
                     text + "'");
}

long ParseDuration(const std::string& text, const std::string& option) {
  double number = 0;
  std::string unit;
  if (SplitNumber(text, &number, &unit)) {
    if (unit.empty() || unit == "s") return std::lround(number);
    if (unit == "m") return std::lround(number * 60);
    if (unit == "h") return std::lround(number * 3600);
    if (unit == "d") return std::lround(number * 86400);
  }
  throw CommandError(option + " wants a duration (90s, 30m, 4h, 2d), not '" + text + "'");
}

std::chrono::milliseconds RetryDelay(int attempts) {
  constexpr double kFirst = 1.0, kLongest = 600.0;
  double seconds = kFirst * std::pow(2.0, std::max(0, std::min(attempts, 30) - 1));
  seconds = std::min(seconds, kLongest);
  thread_local std::mt19937 random(std::random_device{}());
  seconds *= std::uniform_real_distribution<double>(0.5, 1.5)(random);
  return std::chrono::milliseconds(std::lround(seconds * 1000));
}

void RateLimiter::Wait(const std::string& key) {
  if (per_second_ <= 0) return;
  const auto interval = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(1.0 / per_second_));
  std::chrono::steady_clock::time_point slot;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto now = std::chrono::steady_clock::now();
    auto& next = next_[key];
    slot = std::max(now, next);
    next = slot + interval;
  }
  std::this_thread::sleep_until(slot);
}

ConnectionPool::ConnectionPool(std::vector<DeliverFunction> deliverers, double account_rate,
                               double domain_rate)
    : deliverers_(std::move(deliverers)),
      account_limit_(account_rate),
      domain_limit_(domain_rate),
      one_at_a_time_(account_rate > 0 || domain_rate > 0),
      work_ready_(deliverers_.size()),
      jobs_(deliverers_.size(), nullptr),
      ended_(deliverers_.size(), false) {
  if (deliverers_.size() > 1) {
    for (std::size_t i = 0; i < deliverers_.size(); ++i)
      threads_.emplace_back([this, i] { Work(i); });
  }
}

ConnectionPool::~ConnectionPool() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  for (std::condition_variable& ready : work_ready_) ready.notify_all();
  for (std::thread& t : threads_) t.join();
}

void ConnectionPool::DeliverAll(std::size_t connection, const std::vector<SendJob*>& jobs) {
  for (std::size_t i = 0; i < jobs.size(); ++i) {
    SendJob& job = *jobs[i];
    account_limit_.Wait("");
    domain_limit_.Wait(LCase(mail::DomainOf(job.message->email)));
    const SendJob* next = !one_at_a_time_ && i + 1 < jobs.size() ? jobs[i + 1] : nullptr;
    job.attempt = deliverers_[connection](job, next);
  }
}

void ConnectionPool::Start(std::size_t connection, const std::vector<SendJob*>& jobs) {
  std::lock_guard<std::mutex> lock(mutex_);
  jobs_[connection] = &jobs;
  ended_[connection] = false;
  if (!threads_.empty()) work_ready_[connection].notify_one();
}

std::vector<std::size_t> ConnectionPool::WaitAny() {
  std::unique_lock<std::mutex> lock(mutex_);
  std::vector<std::size_t> ended;
  if (threads_.empty()) {
    if (!jobs_[0]) return ended;
    const std::vector<SendJob*>& jobs = *jobs_[0];
    lock.unlock();
    DeliverAll(0, jobs);
    lock.lock();
    ended_[0] = true;
  } else {
    auto any_ended = [&] {
      bool started = false;
      for (std::size_t i = 0; i < jobs_.size(); ++i) {
        if (!jobs_[i]) continue;
        started = true;
        if (ended_[i]) return true;
      }
      return !started;
    };
    work_done_.wait(lock, any_ended);
  }
  for (std::size_t i = 0; i < jobs_.size(); ++i) {
    if (jobs_[i] && ended_[i]) {
      jobs_[i] = nullptr;
      ended.push_back(i);
    }
  }
  return ended;
}

void ConnectionPool::Work(std::size_t connection) {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    work_ready_[connection].wait(
        lock, [&] { return stopping_ || (jobs_[connection] && !ended_[connection]); });
    if (stopping_) return;
    const std::vector<SendJob*>& jobs = *jobs_[connection];
    lock.unlock();
    DeliverAll(connection, jobs);
    lock.lock();
    ended_[connection] = true;
    work_done_.notify_all();
  }
}

}  // namespace quillo::cli
