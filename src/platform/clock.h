// The one replaceable source of the current date and time.
//
// Everything in the library that needs "now" (identifiers, the processor's
// default date, personalisation dates, reply deadlines) asks Now() or Today(),
// so tests can freeze or step time. Thread-safety: SetClock is meant for test
// set-up; Now() may be called from any thread once the clock is set.
#ifndef QUILLO_PLATFORM_CLOCK_H_
#define QUILLO_PLATFORM_CLOCK_H_

#include <functional>

#include "platform/date.h"

namespace quillo {

using ClockFunction = std::function<Date()>;

// The current local date and time (from the installed clock).
Date Now();

// Today's local date with no time part.
Date Today();

// The local date and time read from the system clock, whatever is installed.
Date SystemNow();

// Installs `clock` as the source of Now(); an empty function restores the
// system clock. Returns the previous clock.
ClockFunction SetClock(ClockFunction clock);

}  // namespace quillo

#endif  // QUILLO_PLATFORM_CLOCK_H_
