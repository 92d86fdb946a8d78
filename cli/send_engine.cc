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
    : deliverers_(std::move(deliverers)), account_limit_(account_rate), domain_limit_(domain_rate) {
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
  work_ready_.notify_all();
  for (std::thread& t : threads_) t.join();
}

void ConnectionPool::DeliverOne(std::size_t connection, SendJob& job) {
  account_limit_.Wait("");
  domain_limit_.Wait(LCase(mail::DomainOf(job.message->email)));
  job.attempt = deliverers_[connection](*job.message, job.client, job.subject);
}

void ConnectionPool::Start(const std::vector<SendJob*>& jobs) {
  std::lock_guard<std::mutex> lock(mutex_);
  jobs_ = &jobs;
  next_ = 0;
  finished_ = 0;
  if (!threads_.empty()) work_ready_.notify_all();
}

void ConnectionPool::Wait() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!jobs_) return;
  if (threads_.empty()) {
    const std::vector<SendJob*>& jobs = *jobs_;
    lock.unlock();
    for (SendJob* job : jobs) DeliverOne(0, *job);
    lock.lock();
  } else {
    work_done_.wait(lock, [&] { return finished_ == jobs_->size(); });
  }
  jobs_ = nullptr;
}

void ConnectionPool::Work(std::size_t connection) {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    work_ready_.wait(lock, [&] { return stopping_ || (jobs_ && next_ < jobs_->size()); });
    if (stopping_) return;
    SendJob& job = *(*jobs_)[next_++];
    lock.unlock();
    DeliverOne(connection, job);
    lock.lock();
    if (++finished_ == jobs_->size()) work_done_.notify_all();
  }
}

}  // namespace quillo::cli
