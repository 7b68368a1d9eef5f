#pragma once

#include <event2/event.h>

#include <ctime>

// Where the daemon takes its time from: the system's clocks, and libevent's
// timers counting on them. Scenarios and the simulator put a virtual clock in
// its place (daemon/virtual_clock.h), on which time passes only when they
// say so; everything that reads a clock or arms a timer goes through here.
class tovrin_clock {
  public:
    tovrin_clock() = default;
    tovrin_clock(const tovrin_clock &) = delete;
    tovrin_clock &operator=(const tovrin_clock &) = delete;
    virtual ~tovrin_clock() = default;

    // The monotonic clock; 0 on success, as clock_gettime.
    virtual int monotonic(timespec *now);
    // The real-time clock, for timestamps and the dumps' dates.
    virtual timespec wall();
    // Adds the timer event ev to fire once, seconds from now (a negative
    // delay counts as none); -1 as event_add.
    virtual int arm(event *ev, long seconds);
};
