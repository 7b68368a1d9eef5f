#include "daemon/virtual_clock.h"

#include <sys/time.h>

#include <algorithm>
#include <tuple>

namespace {

// A virtual second stands for this many wall seconds, and virtual time 0 for
// a moment this far ahead: no virtual timer comes due on the wall clock
// within years, and a due time read back from libevent is exact even when
// its cached clock lags ours by minutes.
constexpr long WALL_SECONDS_PER_SECOND = 1000;
constexpr long ANCHOR_AHEAD_SECONDS = 100000000;
// Any deadline earlier than this many seconds before the anchor was not
// armed by a virtual clock.
constexpr long WALL_TOLERANCE_SECONDS = ANCHOR_AHEAD_SECONDS / 2;

}  // namespace

tovrin_virtual_clock::tovrin_virtual_clock(time_t wall_start) : wall_start_(wall_start) {
    gettimeofday(&anchor_, nullptr);
    anchor_.tv_sec += ANCHOR_AHEAD_SECONDS;
}

int tovrin_virtual_clock::monotonic(timespec *now) {
    // Kept off zero, which the daemon reads as "never".
    *now = timespec{1000 + now_, 0};
    return 0;
}

timespec tovrin_virtual_clock::wall() {
    return timespec{wall_start_ + now_, 0};
}

timeval tovrin_virtual_clock::wall_deadline(long due) const {
    return timeval{anchor_.tv_sec + due * WALL_SECONDS_PER_SECOND, anchor_.tv_usec};
}

int tovrin_virtual_clock::arm(event *ev, long seconds) {
    long due = now_ + std::max(seconds, 0L);
    timeval deadline = wall_deadline(due), wall_now{}, after{};
    gettimeofday(&wall_now, nullptr);
    evutil_timersub(&deadline, &wall_now, &after);
    int rc = event_add(ev, &after);
    if (rc == 0)
        armed_[ev] = armed{due, ++armed_count_};
    return rc;
}

std::optional<long> tovrin_virtual_clock::due(event *ev) {
    timeval when{};
    auto found = armed_.find(ev);
    if (found == armed_.end() || event_pending(ev, EV_TIMEOUT, &when) == 0 ||
        when.tv_sec < anchor_.tv_sec - WALL_TOLERANCE_SECONDS)
        return std::nullopt;
    return found->second.due;
}

std::vector<tovrin_virtual_clock::timer> tovrin_virtual_clock::timers(event_base *base) {
    std::vector<timer> out;
    auto collect = [](const event_base *, const event *ev, void *arg) {
        timeval when{};
        if (event_pending(ev, EV_TIMEOUT, &when) != 0)
            static_cast<std::vector<timer> *>(arg)->push_back(
                {const_cast<event *>(ev), 0, false, 0});
        return 0;
    };
    event_base_foreach_event(base, collect, &out);

    std::unordered_map<const event *, armed> still;
    timeval wall_now{};
    gettimeofday(&wall_now, nullptr);
    for (timer &t : out) {
        timeval when{};
        event_pending(t.ev, EV_TIMEOUT, &when);
        auto found = armed_.find(t.ev);
        if (found == armed_.end() || when.tv_sec < anchor_.tv_sec - WALL_TOLERANCE_SECONDS) {
            t.on_wall = true;
            t.due = when.tv_sec - wall_now.tv_sec;
            continue;
        }
        t.due = found->second.due;
        t.order = found->second.order;
        still.insert(*found);
    }
    armed_ = std::move(still);
    std::sort(out.begin(), out.end(), [](const timer &a, const timer &b) {
        return std::tuple(!a.on_wall, a.due, a.order) < std::tuple(!b.on_wall, b.due, b.order);
    });
    return out;
}

void tovrin_virtual_clock::fire(event *ev) {
    event_active(ev, EV_TIMEOUT, 1);
}

bool tovrin_virtual_clock::advance_to(event_base *base, long until,
                                      const std::function<void()> &settle) {
    for (;;) {
        std::vector<timer> pending = timers(base);
        if (!pending.empty() && pending.front().on_wall)
            return false;
        if (pending.empty() || pending.front().due > until)
            break;
        now_ = std::max(now_, pending.front().due);
        for (const timer &t : pending) {
            if (t.due != pending.front().due)
                break;
            fire(t.ev);
        }
        settle();
    }
    now_ = std::max(now_, until);
    return true;
}
