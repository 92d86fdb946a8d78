// The replaceable clock and the system clock behind it.
#include "platform/clock.h"

#include <chrono>
#include <ctime>
#include <mutex>
#include <utility>

#include "platform/error.h"

namespace quillo {
namespace {

// The installed clock; empty means the system clock.
struct InstalledClock {
  std::mutex mutex;
  ClockFunction clock;
};

InstalledClock& Installed() {
  static InstalledClock installed;
  return installed;
}

}  // namespace

Date SystemNow() {
  std::time_t seconds = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  // The local time only changes with the second (offsets change on whole
  // seconds too), and callers such as reply deadlines ask many times a second.
  thread_local std::time_t cached_seconds = -1;
  thread_local Date cached;
  if (seconds == cached_seconds) return cached;
  std::tm local{};
  if (localtime_r(&seconds, &local) == nullptr) Raise(err::kOverflow, "Cannot read the local time");
  cached = DateFromParts(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                         local.tm_min, local.tm_sec);
  cached_seconds = seconds;
  return cached;
}

Date Now() {
  ClockFunction clock;
  {
    std::lock_guard<std::mutex> lock(Installed().mutex);
    clock = Installed().clock;
  }
  return clock ? clock() : SystemNow();
}

Date Today() { return DateOnly(Now()); }

ClockFunction SetClock(ClockFunction clock) {
  std::lock_guard<std::mutex> lock(Installed().mutex);
  return std::exchange(Installed().clock, std::move(clock));
}

}  // namespace quillo
