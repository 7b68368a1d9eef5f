#pragma once

#include <event2/event.h>

#include <new>

#include "daemon/clock.h"

// Logs that an event handler ran out of memory and was cut short.
void event_slot_out_of_memory();

// Every callback runs through this: an allocation failure inside a handler
// is logged and the loop goes on with the next event, so no std::bad_alloc
// can end the process.
template <event_callback_fn F>
void event_slot_guard(evutil_socket_t fd, short events, void *arg) noexcept {
    try {
        F(fd, events, arg);
    } catch (const std::bad_alloc &) {
        event_slot_out_of_memory();
    }
}

// A libevent event owned by a record. set() only records what the event is
// for; the event itself is allocated the first time it is added or
// activated, so the many timers that a conn never arms cost a few words,
// not a whole event each. It remembers whether it was ever set, and takes
// itself out of the loop when its record goes, so a freed record can never
// be reached by a late callback.
class event_slot {
  public:
    event_slot() = default;
    ~event_slot() {
        if (ev_ != nullptr)
            event_free(ev_);
    }
    event_slot(const event_slot &) = delete;
    event_slot &operator=(const event_slot &) = delete;

    // True once set() has been called; "never set" is something callers
    // report in their diagnostics.
    bool initialized() const { return callback_ != nullptr; }

    bool pending() const {
        return ev_ != nullptr &&
               event_pending(ev_, EV_TIMEOUT | EV_READ | EV_WRITE | EV_SIGNAL, nullptr) != 0;
    }

    // (Re)binds the event to callback F, guarded; a pending event is removed
    // first, because re-binding an added event corrupts the loop's lists.
    template <event_callback_fn F>
    void set(event_base *base, evutil_socket_t fd, short events, void *arg) {
        del();
        base_ = base;
        fd_ = fd;
        events_ = events;
        callback_ = event_slot_guard<F>;
        arg_ = arg;
        if (ev_ != nullptr)
            event_assign(ev_, base_, fd_, events_, callback_, arg_);
    }

    // -1, as event_add, when the event is not set or cannot be allocated.
    int add() {
        event *ev = get();
        return ev != nullptr ? event_add(ev, nullptr) : -1;
    }
    // Arms the event as a timer due seconds from now on clock.
    int add_seconds(tovrin_clock &clock, long seconds) {
        event *ev = get();
        return ev != nullptr ? clock.arm(ev, seconds) : -1;
    }

    void del() {
        if (ev_ != nullptr)
            event_del(ev_);
    }

    void activate(int result = 0) {
        if (event *ev = get())
            event_active(ev, result, 0);
    }

    // The event, or null while it has never been added or activated.
    event *raw() { return ev_; }

  private:
    // The event, allocated on first use; null when not set or out of memory.
    event *get() {
        if (ev_ == nullptr && callback_ != nullptr) {
            ev_ = event_new(base_, fd_, events_, callback_, arg_);
            if (ev_ == nullptr)
                event_slot_out_of_memory();
        }
        return ev_;
    }

    event *ev_ = nullptr;
    event_base *base_ = nullptr;
    event_callback_fn callback_ = nullptr;
    void *arg_ = nullptr;
    evutil_socket_t fd_ = -1;
    short events_ = 0;
};

// A timer of a record that has several and arms few of them, like a conn's:
// two words until first armed. The callback is chosen by set() and the event
// allocated at the first add, from the base and argument the owner gives then,
// which are the same every time for one slot.
class timer_slot {
  public:
    timer_slot() = default;
    ~timer_slot() {
        if (ev_ != nullptr)
            event_free(ev_);
    }
    timer_slot(const timer_slot &) = delete;
    timer_slot &operator=(const timer_slot &) = delete;

    bool initialized() const { return callback_ != nullptr; }

    bool pending() const { return ev_ != nullptr && evtimer_pending(ev_, nullptr) != 0; }

    template <event_callback_fn F>
    void set() {
        del();
        if (ev_ != nullptr && callback_ != event_slot_guard<F>) {
            event_free(ev_);
            ev_ = nullptr;
        }
        callback_ = event_slot_guard<F>;
    }

    // As event_slot: nothing is armed before set().
    int add_seconds(tovrin_clock &clock, event_base *base, void *arg, long seconds) {
        if (callback_ == nullptr)
            return -1;
        if (ev_ == nullptr) {
            ev_ = evtimer_new(base, callback_, arg);
            if (ev_ == nullptr) {
                event_slot_out_of_memory();
                return -1;
            }
        }
        return clock.arm(ev_, seconds);
    }

    void del() {
        if (ev_ != nullptr)
            evtimer_del(ev_);
    }

    event *raw() { return ev_; }

  private:
    event *ev_ = nullptr;
    event_callback_fn callback_ = nullptr;
};
