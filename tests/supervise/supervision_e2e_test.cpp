#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "support/daemon_fixture.h"

namespace {

using namespace std::chrono_literals;
using strings = std::vector<std::string>;

// The supervision tests share the daemon-and-store fixture under their own
// suite name.
class Supervision : public daemon_fixture {};

const strings walk_up = {"down",    "waiting to start", "starting", "starting up commands",
                         "testing", "tested",           "up"};

TEST_F(Supervision, DependentConnsComeUpInOrderPublishingEveryState) {
    start(
        "conn A\n\tparent P\n\tstart /bin/true\n\tup sleep 60\n\ttest /bin/true\n"
        "\ttestdelay 0\n\ttestperiod 1\n"
        "conn P\n\tstart sh -c \"exit 0\"\n\ttest true\n\ttestdelay 0\n\ttestperiod 1\n"
        "conn ghostly\n\tparent nowhere\n");
    ASSERT_TRUE(wait_status("A", "up"));

    EXPECT_EQ(published("P"), walk_up);
    EXPECT_EQ(published("A"), walk_up);
    strings lines = status_lines();
    // Every conn, the deaf one too, is down before anything starts.
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(strings(lines.begin(), lines.begin() + 4),
              (strings{"A down", "P down", "ghostly down", "nowhere down"}));
    auto at = [&](const std::string &what) {
        return std::find(lines.begin(), lines.end(), what) - lines.begin();
    };
    EXPECT_LT(at("P up"), at("A starting"));
    EXPECT_EQ(published("ghostly"), (strings{"down", "waiting to start"}));

    command("A,cli,stop");
    EXPECT_TRUE(wait_status("A", "down"));
}

TEST_F(Supervision, AFailingTestRestartsTheConnAndItComesBack) {
    root_.write_file("healthy", "");
    start(
        "global\n\tkeepalive 60\n"
        "conn A\n\tlog +debug\n\ttest test -e " +
        root_.file("healthy") + "\n\ttestdelay 0\n\ttestperiod 1\n\ttestthreshold 0\n");
    ASSERT_TRUE(wait_status("A", "up"));

    std::remove(root_.file("healthy").c_str());
    EXPECT_TRUE(sandbox_.wait_log("A test theshold of 0 hit, restarting", 15s));
    EXPECT_TRUE(wait_status("A", "testing"));
    root_.write_file("healthy", "");
    EXPECT_TRUE(wait_status("A", "up"));
    // Up, then the whole way down and up again.
    strings states = published("A");
    auto first_up = std::find(states.begin(), states.end(), "up");
    ASSERT_NE(first_up, states.end());
    strings after_up(first_up + 1, states.end());
    ASSERT_GE(after_up.size(), 4u);
    EXPECT_EQ(after_up.front(), "waiting to stop");
    EXPECT_NE(std::find(after_up.begin(), after_up.end(), "down"), after_up.end());
    EXPECT_EQ(after_up.back(), "up");
}

TEST_F(Supervision, ControlCommandsRestartAndTheKeepaliveRepairs) {
    start("global\n\tkeepalive 1\nconn wan\n\ttest true\n\ttestdelay 0\n\ttestperiod 5\n");
    ASSERT_TRUE(wait_status("wan", "up"));
    size_t before = published("wan").size();

    command("wan,cli,restart");
    ASSERT_TRUE(sandbox_.wait_log("external restart command received for wan", 10s));
    ASSERT_TRUE(store_->wait_journal(
        [&](const strings &) {
            strings s = published("wan");
            return s.size() > before + 2 && s.back() == "up";
        },
        15s));
    strings after = published("wan");
    EXPECT_EQ(after[before], "waiting to stop");

    // Stopped by an operator, the keepalive starts it again...
    command("wan,x,stopnow");
    EXPECT_TRUE(wait_status("wan", "down"));
    EXPECT_TRUE(sandbox_.wait_log("Keepalive found incorrectly down conn wan - starting now", 10s));
    EXPECT_TRUE(wait_status("wan", "up"));

    // ...unless the keepalive was stopped first.
    command("tovrin,x,stop_keepalive");
    ASSERT_TRUE(sandbox_.wait_log("external stop_keepalive command received", 10s));
    command("wan,x,stop");
    EXPECT_TRUE(wait_status("wan", "down"));
    EXPECT_FALSE(wait_status("wan", "waiting to start", 2500ms));
    command("tovrin,x,start_keepalive");
    EXPECT_TRUE(wait_status("wan", "up"));

    // Refused commands change nothing.
    command("wan,stop");
    command("nosuch,x,start");
    EXPECT_TRUE(sandbox_.wait_log("control message for invalid conn \"nosuch\" received", 10s));
    EXPECT_TRUE(sandbox_.wait_log("invalid control message received", 10s));
    EXPECT_EQ(store_->get("tovrin.wan.status"), "up");
}

}  // namespace
