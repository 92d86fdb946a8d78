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
  std::tm local{};
  if (localtime_r(&seconds, &local) == nullptr) Raise(err::kOverflow, "Cannot read the local time");
  return DateFromParts(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                       local.tm_min, local.tm_sec);
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
