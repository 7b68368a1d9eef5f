#pragma once

#include <event2/event.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <unordered_map>
#include <vector>

#include "daemon/clock.h"

// A clock on which time passes only when its owner says so: the scenarios'
// and the simulator's. Time is whole seconds from 0. Its timers are real
// libevent timers, so the daemon's code sees them pending and cancels them as
// it always does, but they are armed years ahead on the wall clock and fire
// only when advance_to() or fire() reaches them; each remembers its virtual
// due time here.
class tovrin_virtual_clock final : public tovrin_clock {
  public:
    // The wall clock reads wall_start plus the time passed.
    explicit tovrin_virtual_clock(time_t wall_start);

    int monotonic(timespec *now) override;
    timespec wall() override;
    int arm(event *ev, long seconds) override;

    // Seconds passed since the start.
    long now() const { return now_; }

    struct timer {
        event *ev;
        long due;        // virtual seconds; for a wall-clock timer, whole seconds left
        bool on_wall;    // armed past this clock, on the wall clock: a fault
        uint64_t order;  // arming order among timers due at the same time
        long armed_at;   // virtual seconds when it was armed
    };
    // Every pending timer of base, earliest first, timers due together in
    // the order they were armed; wall-clock timers first of all.
    std::vector<timer> timers(event_base *base);
    // When ev, a timer armed through this clock and still pending, is due.
    std::optional<long> due(event *ev);

    // Fires the pending timer ev now, whenever it was due.
    static void fire(event *ev);
    // Moves time on to until (never back), firing on the way every timer due
    // by then: the earliest first, those due at the same second together,
    // with time standing at their due time; settle() runs after each batch
    // and should run the loop until nothing is left to do. Stops early,
    // returning false, when a timer armed on the wall clock turns up.
    bool advance_to(event_base *base, long until, const std::function<void()> &settle);
    // One step of advance_to: fires the earliest timers due by until (never
    // before now), all those due at that second, in arming order, with time
    // moved to it, runs settle() and returns that due time. Nullopt, with
    // time unchanged, when no timer is due by until, or when a timer armed
    // on the wall clock turns up (*wall_timer is then set).
    std::optional<long> fire_next(event_base *base, long until, const std::function<void()> &settle,
                                  bool *wall_timer);

  private:
    struct armed {
        long due;
        uint64_t order;
        long at;
    };
    // What libevent is told: the time the timer is due, moved years ahead.
    timeval wall_deadline(long due) const;
    // The virtual due time a libevent deadline stands for; nullopt for one
    // set on the wall clock.
    std::optional<long> due_of_deadline(const timeval &when) const;
    // Drops what armed_ remembers of events no longer pending, once it holds
    // many more than are.
    void armed_prune(size_t pending);

    long now_ = 0;
    time_t wall_start_;
    timeval anchor_{};  // the wall time that stands for virtual second 0
    uint64_t armed_count_ = 0;
    // By event. Entries of events that are gone are dropped by timers(),
    // which sees every pending one, and by fire_next() now and then.
    std::unordered_map<const event *, armed> armed_;
    // The pending timers fire_next() saw last; kept to spare allocations.
    std::vector<const event *> seen_;
};
