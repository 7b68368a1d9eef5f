#include "store/command.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "supervise/conn.h"
#include "supervise/inst.h"
#include "support/log_capture.h"
#include "support/test_inst.h"

namespace {

class ControlCommand : public ::testing::Test {
  protected:
    void SetUp() override {
        t.write_config(
            "conn wan\n\tlog +externalcommands\n"
            "conn quiet\n\tlog -externalcommands\n"
            "orderedgroup uplinks\n"
            "conn x\n\tparent deaf\n");
        ASSERT_EQ(t.load(), 0);
        t.conn("uplinks")->active_conn_name = "gone";
    }

    test_inst t;
    tovrin_inst &inst = t.inst;
};

TEST_F(ControlCommand, ParsesDispatchesAndReports) {
    struct command_case {
        const char *command;
        int result;
        std::vector<log_record> log;
    };
    const command_case cases[] = {
        {"wan,cli,stop", 0, {{TOVRIN_LOG_INFO, "external stop command received for wan"}}},
        {"wan,cli,start", 0, {{TOVRIN_LOG_INFO, "external start command received for wan"}}},
        {"wan,cli,restart", 0, {{TOVRIN_LOG_INFO, "external restart command received for wan"}}},
        {"wan,x,failover", 0, {{TOVRIN_LOG_INFO, "external failover command received for wan"}}},
        // Names are prefixes of the action, searched from the top.
        {"wan,x,stopnow", 0, {{TOVRIN_LOG_INFO, "external stop command received for wan"}}},
        {"wan,x,start_keepalive",
         0,
         {{TOVRIN_LOG_INFO, "external start command received for wan"}}},
        // Empty fields collapse; fields after the third are ignored.
        {",,wan,,cli,,stop,,", 0, {{TOVRIN_LOG_INFO, "external stop command received for wan"}}},
        {"wan,cli,stop,more", 0, {{TOVRIN_LOG_INFO, "external stop command received for wan"}}},
        {"quiet,x,stop", 0, {}},
        {"tovrin,x,stop_keepalive",
         0,
         {{TOVRIN_LOG_INFO, "external stop_keepalive command received"}}},
        {"tovrin,x,start_keepalive",
         0,
         {{TOVRIN_LOG_INFO, "external start_keepalive command received"}}},
        {"wan,stop", -1, {{TOVRIN_LOG_FATAL, "invalid control message received"}}},
        {"wan,,stop", -1, {{TOVRIN_LOG_FATAL, "invalid control message received"}}},
        {"", -1, {{TOVRIN_LOG_FATAL, "invalid control message received"}}},
        // No instance command of that name: "tovrin" is looked up as a conn.
        {"tovrin,x,stop",
         -1,
         {{TOVRIN_LOG_FATAL, "control message for invalid conn \"tovrin\" received"}}},
        {"nosuch,x,start",
         -1,
         {{TOVRIN_LOG_FATAL, "control message for invalid conn \"nosuch\" received"}}},
        {"WAN,x,start",
         -1,
         {{TOVRIN_LOG_FATAL, "control message for invalid conn \"WAN\" received"}}},
        {"wan,x,bogus", -1, {{TOVRIN_LOG_FATAL, "unknown action: bogus"}}},
        // Accepted for a deaf conn; its message is dropped on delivery.
        {"deaf,x,stop", 0, {{TOVRIN_LOG_INFO, "external stop command received for deaf"}}},
        // The group's active member is gone: the lookup says so.
        {"uplinks,x,failover",
         0,
         {{TOVRIN_LOG_INFO, "external failover command received for uplinks"},
          {TOVRIN_LOG_FATAL, "couldn't find conn: gone"},
          {TOVRIN_LOG_FATAL, "tovrin_conn_deliver_message called with a NULL receipient"}}},
    };
    for (const command_case &c : cases) {
        log_capture log;
        EXPECT_EQ(tovrin_handle_command(&inst, c.command), c.result) << c.command;
        EXPECT_EQ(log.records(), c.log) << c.command;
    }
}

TEST_F(ControlCommand, InstanceMaskGatesTheKeepaliveLines) {
    inst.globals->instance_log_mask = 0;
    log_capture log;
    EXPECT_EQ(tovrin_handle_command(&inst, "tovrin,x,stop_keepalive"), 0);
    EXPECT_TRUE(log.records().empty());
}

TEST_F(ControlCommand, TheCommandTextIsNotChanged) {
    const std::string text = "wan,cli,stop";
    std::string copy = text;
    tovrin_handle_command(&inst, copy.c_str());
    EXPECT_EQ(copy, text);
}

}  // namespace
