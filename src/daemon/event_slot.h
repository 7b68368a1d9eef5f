#pragma once

#include <event2/event.h>
#include <event2/event_compat.h>
#include <event2/event_struct.h>

#include <cstring>
#include <new>

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

// A libevent event embedded in a record. It remembers whether it was ever
// set, and takes itself out of the loop when its record goes, so a freed
// record can never be reached by a late callback. Records holding one never
// move.
class event_slot {
  public:
    event_slot() { std::memset(&ev_, 0, sizeof ev_); }
    ~event_slot() { del(); }
    event_slot(const event_slot &) = delete;
    event_slot &operator=(const event_slot &) = delete;

    // True once set() has been called; "never set" is something callers
    // report in their diagnostics.
    bool initialized() const { return event_initialized(&ev_) != 0; }

    bool pending() const {
        return initialized() &&
               event_pending(&ev_, EV_TIMEOUT | EV_READ | EV_WRITE | EV_SIGNAL, nullptr) != 0;
    }

    // (Re)binds the event to callback F, guarded; a pending event is removed
    // first, because re-setting an added event corrupts the loop's lists.
    template <event_callback_fn F>
    void set(event_base *base, evutil_socket_t fd, short events, void *arg) {
        del();
        event_set(&ev_, fd, events, event_slot_guard<F>, arg);
        event_base_set(base, &ev_);
    }

    int add() { return event_add(&ev_, nullptr); }
    int add_seconds(long seconds) {
        timeval tv{seconds, 0};
        return event_add(&ev_, &tv);
    }
    int add_timeval(const timeval &tv) { return event_add(&ev_, &tv); }

    void del() {
        if (initialized())
            event_del(&ev_);
    }

    void activate(int result = 0) { event_active(&ev_, result, 0); }

    event *raw() { return &ev_; }

  private:
    event ev_;
};
