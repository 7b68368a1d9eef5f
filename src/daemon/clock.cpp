#include "daemon/clock.h"

#include <sys/time.h>

int tovrin_clock::monotonic(timespec *now) {
    return clock_gettime(CLOCK_MONOTONIC, now);
}

timespec tovrin_clock::wall() {
    timespec now{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0)
        now.tv_sec = time(nullptr);
    return now;
}

int tovrin_clock::arm(event *ev, long seconds) {
    timeval after{seconds < 0 ? 0 : seconds, 0};
    return event_add(ev, &after);
}
