#include "daemon/virtual_clock.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

struct event_deleter {
    void operator()(event *ev) const { event_free(ev); }
};
using event_ptr = std::unique_ptr<event, event_deleter>;

// A timer that notes its name in a log when it fires.
struct named_timer {
    std::string name;
    std::string *log;
    event_ptr ev;
};

void note(evutil_socket_t, short, void *arg) {
    auto *t = static_cast<named_timer *>(arg);
    *t->log += t->name + "@";
}

// Each test's timers go at the end of its body, before the base.
struct VirtualClock : testing::Test {
    ~VirtualClock() override { event_base_free(base); }

    event_base *base = event_base_new();
    tovrin_virtual_clock clock{0};
    std::string log;
};

}  // namespace

// A timer armed straight on libevent, past the clock, would fire on the wall
// clock: it is listed first and stops the clock from moving.
TEST_F(VirtualClock, ATimerArmedOnTheWallClockIsReported) {
    named_timer virt{"v", &log, event_ptr(evtimer_new(base, note, &virt))};
    named_timer wall{"w", &log, event_ptr(evtimer_new(base, note, &wall))};
    clock.arm(virt.ev.get(), 1);
    timeval hour{3600, 0};
    event_add(wall.ev.get(), &hour);
    auto timers = clock.timers(base);
    ASSERT_EQ(timers.size(), 2u);
    EXPECT_EQ(timers[0].ev, wall.ev.get());
    EXPECT_TRUE(timers[0].on_wall);
    EXPECT_FALSE(timers[1].on_wall);
    EXPECT_FALSE(clock.due(wall.ev.get()).has_value());
    EXPECT_FALSE(clock.advance_to(base, 10, [&] { event_base_loop(base, EVLOOP_NONBLOCK); }));
    EXPECT_EQ(log, "");
}

// One batch a step: the earliest due time, every timer due then in arming
// order, and when each was armed. Timers freed while pending are forgotten
// without being looked at again (the sanitizer build would see it), however
// many of them go.
TEST_F(VirtualClock, FiresOneBatchAtATimeAndForgetsFreedTimers) {
    named_timer a{"a", &log, nullptr}, b{"b", &log, nullptr}, c{"c", &log, nullptr};
    for (named_timer *t : {&a, &b, &c})
        t->ev.reset(evtimer_new(base, note, t));
    auto settle = [&] { event_base_loop(base, EVLOOP_NONBLOCK); };
    clock.arm(c.ev.get(), 7);
    clock.arm(b.ev.get(), 3);
    clock.arm(a.ev.get(), 3);
    for (int i = 0; i < 5000; i++) {
        event_ptr gone(evtimer_new(base, note, &a));
        clock.arm(gone.get(), i % 5);
    }

    bool wall = true;
    EXPECT_EQ(clock.fire_next(base, 10, settle, &wall), 3);
    EXPECT_FALSE(wall);
    EXPECT_EQ(log, "b@a@");
    EXPECT_EQ(clock.now(), 3);
    clock.arm(b.ev.get(), 2);
    auto pending = clock.timers(base);
    ASSERT_EQ(pending.size(), 2u);
    EXPECT_EQ(pending[0].ev, b.ev.get());
    EXPECT_EQ(pending[0].armed_at, 3);
    EXPECT_EQ(pending[1].armed_at, 0);
    EXPECT_EQ(clock.fire_next(base, 4, settle, &wall), std::nullopt);  // b is due at 5
    EXPECT_EQ(clock.fire_next(base, 10, settle, &wall), 5);
    EXPECT_EQ(clock.fire_next(base, 10, settle, &wall), 7);
    EXPECT_EQ(clock.fire_next(base, 10, settle, &wall), std::nullopt);
    EXPECT_FALSE(wall);
    EXPECT_EQ(log, "b@a@b@c@");
    EXPECT_EQ(clock.now(), 7);
}
