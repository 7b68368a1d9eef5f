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
        armed_[ev] = armed{due, ++armed_count_, now_};
    return rc;
}

std::optional<long> tovrin_virtual_clock::due_of_deadline(const timeval &when) const {
    if (when.tv_sec < anchor_.tv_sec - WALL_TOLERANCE_SECONDS)
        return std::nullopt;
    // Rounded to the nearest virtual second: libevent's cached clock may
    // have lagged ours when the timer was added.
    long ahead = when.tv_sec - anchor_.tv_sec + WALL_SECONDS_PER_SECOND / 2;
    return ahead < 0 ? 0 : ahead / WALL_SECONDS_PER_SECOND;
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
                {const_cast<event *>(ev), 0, false, 0, 0});
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
        t.armed_at = found->second.at;
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

std::optional<long> tovrin_virtual_clock::fire_next(event_base *base, long until,
                                                    const std::function<void()> &settle,
                                                    bool *wall_timer) {
    // One pass over the base finds the earliest due time and what is due
    // then; only those are looked up for their arming order. Sorting every
    // pending timer, as timers() does, would cost more than the daemon's
    // own work when thousands of conns test.
    struct scan {
        const tovrin_virtual_clock *clock;
        std::vector<const event *> *seen;
        std::vector<const event *> earliest;
        long due = 0;
        bool wall = false;
    } found{this, &seen_, {}};
    seen_.clear();
    auto visit = [](const event_base *, const event *ev, void *arg) {
        auto *f = static_cast<scan *>(arg);
        timeval when{};
        if (event_pending(ev, EV_TIMEOUT, &when) == 0)
            return 0;
        f->seen->push_back(ev);
        std::optional<long> due = f->clock->due_of_deadline(when);
        if (!due) {
            f->wall = true;
            return 1;
        }
        if (f->earliest.empty() || *due < f->due) {
            f->earliest.clear();
            f->due = *due;
        }
        if (*due == f->due)
            f->earliest.push_back(ev);
        return 0;
    };
    event_base_foreach_event(base, visit, &found);

    std::vector<std::pair<uint64_t, event *>> batch;
    for (const event *ev : found.earliest) {
        auto it = armed_.find(ev);
        if (it == armed_.end() || it->second.due != found.due) {
            found.wall = true;  // set on libevent past this clock
            break;
        }
        batch.emplace_back(it->second.order, const_cast<event *>(ev));
    }
    *wall_timer = found.wall;
    if (found.wall || batch.empty() || found.due > until)
        return std::nullopt;
    armed_prune(seen_.size());
    std::sort(batch.begin(), batch.end());
    now_ = std::max(now_, found.due);
    for (const auto &[order, ev] : batch)
        fire(ev);
    settle();
    return found.due;
}

void tovrin_virtual_clock::armed_prune(size_t pending) {
    if (armed_.size() < 2 * pending + 1024)
        return;
    std::sort(seen_.begin(), seen_.end());
    std::erase_if(armed_, [this](const auto &entry) {
        return !std::binary_search(seen_.begin(), seen_.end(), entry.first);
    });
}

bool tovrin_virtual_clock::advance_to(event_base *base, long until,
                                      const std::function<void()> &settle) {
    bool wall = false;
    while (fire_next(base, until, settle, &wall)) {
    }
    if (wall)
        return false;
    now_ = std::max(now_, until);
    return true;
}
