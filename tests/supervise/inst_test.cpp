#include "supervise/inst.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/unique_fd.h"

namespace {

TEST(InstInit, FillsTheRecordAndArmsOnlyTheAlwaysOnEvents) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    unique_fd daemon_end(pair[0]), store_end(pair[1]);

    tovrin_inst inst;
    event_base *base = tovrin_inst_init(daemon_end.get(), &inst);
    ASSERT_NE(base, nullptr);
    EXPECT_EQ(inst.base.get(), base);
    EXPECT_EQ(inst.store_fd, daemon_end.get());
    EXPECT_STREQ(inst.command_key, "config.tovrin.command");
    EXPECT_EQ(inst.store_tx_state, 0);
    ASSERT_NE(inst.globals, nullptr);
    EXPECT_EQ(inst.globals->keepalive, 30);
    EXPECT_EQ(inst.globals->configreloadtimeout, 600);
    EXPECT_EQ(inst.globals->bootdelay, 0);
    EXPECT_EQ(inst.globals->default_log_mask, 0x35cau);
    EXPECT_EQ(inst.globals->instance_log_mask, 0x10u);
    EXPECT_EQ(inst.new_globals, nullptr);
    EXPECT_TRUE(inst.conns.empty());
    EXPECT_TRUE(inst.new_conns.empty());
    EXPECT_TRUE(inst.message_queue.empty());
    EXPECT_FALSE(inst.reloading_config);

    // Added now: the store reader and SIGCHLD, and the writer because the
    // command-key subscription is queued. Attached only: the rest.
    EXPECT_TRUE(inst.store_read_event.pending());
    EXPECT_TRUE(inst.sigchld_event.pending());
    EXPECT_TRUE(inst.store_write_event.pending());
    EXPECT_EQ(inst.store_out_queue.size(), 1u);
    for (event_slot *attached : {&inst.tovrin_timer, &inst.reload_check_event, &inst.dispatch_event,
                                 &inst.config_reload_timer}) {
        EXPECT_TRUE(attached->initialized());
        EXPECT_FALSE(attached->pending());
    }
}

}  // namespace
