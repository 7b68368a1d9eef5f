#pragma once

#include <dirent.h>
#include <event2/event.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "daemon/event_slot.h"
#include "supervise/action.h"
#include "supervise/action_queue.h"
#include "supervise/child_exit.h"
#include "supervise/conn.h"
#include "supervise/inst.h"
#include "supervise/message.h"
#include "support/log_capture.h"
#include "support/test_inst.h"

// An instance whose commands run as real children on its real event base.
// The dispatcher is unhooked, so the messages that exits deliver stay in the
// queue for the test to read and no state machine acts on them.
class action_fixture : public ::testing::Test {
  protected:
    action_fixture() {
        t.inst.dispatch_event.set<ignore_event>(base(), -1, 0, nullptr);
        tick.set<ignore_event>(base(), -1, 0, nullptr);
    }

    ~action_fixture() override {
        // Whatever a failed test left running is killed and reaped here, so
        // no child outlives its test.
        std::vector<pid_t> running;
        for (const auto &[pid, entry] : t.inst.running_actions)
            running.push_back(pid);
        for (tovrin_conn &conn : t.inst.conns)
            tovrin_conn_actions_release(&conn);
        for (pid_t pid : running) {
            killpg(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }

    static void ignore_event(evutil_socket_t, short, void *) {}

    event_base *base() { return t.inst.base.get(); }

    // Loads a configuration and returns the conn called name in it.
    tovrin_conn *load(const std::string &text, const std::string &name = "a") {
        t.write_config(text);
        if (t.load() != 0)
            return nullptr;
        return t.conn(name);
    }

    // Turns the loop until done() holds; false when limit passes first.
    bool wait_for(const std::function<bool()> &done,
                  std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (!done()) {
            if (std::chrono::steady_clock::now() >= deadline)
                return false;
            tick.add_timeval(timeval{0, 20000});
            event_base_loop(base(), EVLOOP_ONCE);
        }
        return true;
    }

    // The types of the messages queued so far, oldest first; each must go
    // from conn to itself. The queue is emptied.
    std::vector<int> take_messages(const tovrin_conn *conn) {
        std::vector<int> types;
        for (const tovrin_msg &msg : t.inst.message_queue) {
            EXPECT_EQ(msg.src, conn);
            EXPECT_EQ(msg.dst, conn);
            types.push_back(msg.type);
        }
        t.inst.message_queue.clear();
        return types;
    }

    // Seconds until a pending timer fires; -1 when it is not pending.
    static double seconds_left(event_slot &slot) {
        timeval when{};
        if (!slot.pending() || event_pending(slot.raw(), EV_TIMEOUT, &when) == 0)
            return -1;
        timeval now{};
        gettimeofday(&now, nullptr);
        return static_cast<double>(when.tv_sec - now.tv_sec) +
               static_cast<double>(when.tv_usec - now.tv_usec) / 1e6;
    }

    // Descriptors open in this process.
    static int open_fd_count() {
        int count = 0;
        if (DIR *dir = opendir("/proc/self/fd")) {
            while (readdir(dir) != nullptr)
                count++;
            closedir(dir);
        }
        return count;
    }

    // Whether pid is gone for good: exited and reaped.
    static bool process_gone(pid_t pid) { return kill(pid, 0) != 0 && errno == ESRCH; }

    test_inst t;
    log_capture log;
    event_slot tick;
};
