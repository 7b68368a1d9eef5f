#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "support/daemon_fixture.h"

namespace {

using namespace std::chrono_literals;
using strings = std::vector<std::string>;
using steady = std::chrono::steady_clock;

// Members whose health the test flips: each passes its test while ROOT/NAME.ok
// exists, and a single failed run restarts it.
class GroupFailover : public daemon_fixture {
  protected:
    std::string member(const std::string &name, const std::string &extra = "") const {
        return "conn " + name + "\n\ttest test -e " + root_.file(name + ".ok") +
               "\n\ttestdelay 0\n\ttestperiod 1\n\ttestthreshold 0\n" + extra;
    }
    void healthy(const std::string &name) const { root_.write_file(name + ".ok", ""); }
    void sick(const std::string &name) const { std::remove(root_.file(name + ".ok").c_str()); }

    // The messages about group moves, in order: those naming the group first
    // and the external failover command's.
    strings moves_logged(const std::string &group) const {
        const std::string prefix = "group " + group + " ";
        strings out;
        for (const std::string &message : sandbox_.log_messages()) {
            if (message.rfind(prefix, 0) == 0 ||
                message.rfind("external failover command received for ", 0) == 0)
                out.push_back(message);
        }
        return out;
    }

    // The group's published keys with every failover timestamp shown as "T".
    strings group_sets(const std::string &group) const { return group_keys(group, "T"); }

    // True when pred stays false for the whole of period: the bounded wait
    // after which something that must not happen is taken not to.
    static bool stays_false(const std::function<bool()> &pred, std::chrono::milliseconds period) {
        return !wait_until(pred, period, 20ms);
    }
};

// The three keys published when a group's active member changes.
strings active_keys(int index, const std::string &name, const std::string &names) {
    return {"active-connection-index " + std::to_string(index), "active-connection-name " + name,
            "connection-names " + names};
}

// The keys published at the end of a failover to the member at index.
strings moved_keys(int index, const std::string &name, const std::string &names) {
    strings keys = active_keys(index, name, names);
    keys.push_back("failover-timestamp T");
    return keys;
}

strings joined(std::initializer_list<strings> parts) {
    strings out;
    for (const strings &part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

strings prefix_of(const strings &all, size_t n) {
    return strings(all.begin(), all.begin() + static_cast<long>(std::min(n, all.size())));
}

// For a member that stays sick: a failed test restarts it, and without a
// delay its next test would follow at once, round after round.
const std::string retry_slowly = "\ttestdelay 1\n";

const strings walk_up = {"down",    "waiting to start", "starting", "starting up commands",
                         "testing", "tested",           "up"};
const strings walk_down = {"waiting to stop", "stopping up commands", "stopping", "down"};

TEST_F(GroupFailover, MutexMembersFailOverInTurnAndWrapToTheFirst) {
    for (const char *name : {"m1", "m2", "m3"})
        healthy(name);
    long t0 = static_cast<long>(std::time(nullptr));
    start(
        "orderedgroup g\n\tmember m1\n\tmember m2\n\tmember m3\n\tmutex\n"
        "\tfailovertimeout 5\n\tfailforwardperiod 60\n" +
        member("m1") + member("m2") + member("m3"));
    ASSERT_TRUE(wait_status("m1", "up")) << trace();

    sick("m1");
    ASSERT_TRUE(sandbox_.wait_log("group g failing over to m2", 10s)) << trace();
    ASSERT_TRUE(wait_status("m2", "up")) << trace();
    sick("m2");
    ASSERT_TRUE(sandbox_.wait_log("group g failing over to m3", 10s)) << trace();
    ASSERT_TRUE(wait_status("m3", "up")) << trace();
    healthy("m1");
    sick("m3");
    ASSERT_TRUE(sandbox_.wait_log("group g failing over to m1", 10s)) << trace();
    ASSERT_TRUE(wait_status("m1", "up")) << trace();
    ASSERT_TRUE(wait_status("g", "up")) << trace();
    long t1 = static_cast<long>(std::time(nullptr));

    EXPECT_EQ(moves_logged("g"),
              (strings{"group g has failed", "group g failing over to m2", "group g has failed",
                       "group g failing over to m3", "group g has failed",
                       "group g members all failed", "group g failing over to m1"}))
        << trace();
    const std::string names = "m1,m2,m3";
    EXPECT_EQ(group_sets("g"), joined({active_keys(0, "m1", names), moved_keys(1, "m2", names),
                                       moved_keys(2, "m3", names), moved_keys(0, "m1", names)}))
        << trace();
    strings stamps = values("tovrin.g.failover-timestamp");
    ASSERT_EQ(stamps.size(), 3u);
    long previous = t0;
    for (const std::string &stamp : stamps) {
        long at = std::stol(stamp);
        EXPECT_GE(at, previous);
        EXPECT_LE(at, t1);
        previous = at;
    }
    // Under mutex a member is started only once it is the active one, and
    // the one it replaces goes the whole way down first.
    EXPECT_EQ(published("m2"), joined({walk_up, walk_down})) << trace();
    EXPECT_EQ(published("m3"), joined({walk_up, walk_down})) << trace();
    EXPECT_EQ(published("m1"),
              joined({walk_up, walk_down, strings(walk_up.begin() + 1, walk_up.end())}))
        << trace();
}

TEST_F(GroupFailover, AMemberNotUpBeforeTheTimeoutIsFailedOver) {
    healthy("m2");
    auto started = steady::now();
    start(
        "orderedgroup g\n\tmember m1\n\tmember m2\n\tfailovertimeout 2\n\tfailforwardperiod 60\n" +
        member("m1", retry_slowly) + member("m2"));
    ASSERT_TRUE(sandbox_.wait_log("group g failing over to m2", 10s)) << trace();
    auto failed_over = steady::now();
    ASSERT_TRUE(wait_status("m2", "up")) << trace();
    ASSERT_TRUE(wait_status("g", "up")) << trace();

    EXPECT_GE(failed_over - started, 1900ms);
    EXPECT_EQ(moves_logged("g"), (strings{"group g member m1 failed to come up before timeout",
                                          "group g failing over to m2"}))
        << trace();
    EXPECT_EQ(group_sets("g"),
              joined({active_keys(0, "m1", "m1,m2"), moved_keys(1, "m2", "m1,m2")}))
        << trace();
    // The standby passed its tests while m1 was active and waited in tested;
    // it went up without starting again.
    EXPECT_EQ(published("m2"), walk_up) << trace();
}

TEST_F(GroupFailover, FailsForwardToAnEarlierMemberAfterThePeriod) {
    healthy("m1");
    healthy("m2");
    start("orderedgroup g\n\tmember m1\n\tmember m2\n\tfailovertimeout 5\n\tfailforwardperiod 2\n" +
          member("m1") + member("m2"));
    ASSERT_TRUE(wait_status("m1", "up")) << trace();
    ASSERT_TRUE(wait_status("m2", "tested")) << trace();

    sick("m1");
    ASSERT_TRUE(sandbox_.wait_log("group g failing over to m2", 10s)) << trace();
    auto failed_over = steady::now();
    // m1 passes its tests again within a second; the move back waits for
    // the period all the same.
    healthy("m1");
    ASSERT_TRUE(sandbox_.wait_log("group g trying to failforward to m1", 10s)) << trace();
    EXPECT_GE(steady::now() - failed_over, 1500ms);
    ASSERT_TRUE(wait_status("m1", "up")) << trace();
    ASSERT_TRUE(wait_status("m2", "tested")) << trace();

    EXPECT_EQ(moves_logged("g"), (strings{"group g has failed", "group g failing over to m2",
                                          "group g trying to failforward to m1"}))
        << trace();
    EXPECT_EQ(group_sets("g"), joined({active_keys(0, "m1", "m1,m2"), moved_keys(1, "m2", "m1,m2"),
                                       moved_keys(0, "m1", "m1,m2")}))
        << trace();
}

TEST_F(GroupFailover, MutexGroupFailsForwardToTheFirstMemberAndOverAgainWhenItStaysDown) {
    healthy("m1");
    healthy("m2");
    start(
        "orderedgroup g\n\tmember m1\n\tmember m2\n\tmutex\n\tfailovertimeout 2\n"
        "\tfailforwardperiod 2\n" +
        member("m1", retry_slowly) + member("m2"));
    ASSERT_TRUE(wait_status("m1", "up")) << trace();

    sick("m1");
    ASSERT_TRUE(wait_log_count("group g failing over to m2", 2, 15s)) << trace();
    ASSERT_TRUE(wait_status("m2", "up")) << trace();

    EXPECT_EQ(prefix_of(moves_logged("g"), 5),
              (strings{"group g has failed", "group g failing over to m2",
                       "group g trying to failforward to m1",
                       "group g member m1 failed to come up before timeout",
                       "group g failing over to m2"}))
        << trace();
    EXPECT_EQ(prefix_of(group_sets("g"), 15),
              joined({active_keys(0, "m1", "m1,m2"), moved_keys(1, "m2", "m1,m2"),
                      moved_keys(0, "m1", "m1,m2"), moved_keys(1, "m2", "m1,m2")}))
        << trace();
}

TEST_F(GroupFailover, ZeroFailforwardPeriodFailsForwardAtTheFirstMemberTested) {
    healthy("m1");
    healthy("m2");
    start("orderedgroup g\n\tmember m1\n\tmember m2\n\tfailovertimeout 5\n\tfailforwardperiod 0\n" +
          member("m1") + member("m2"));
    ASSERT_TRUE(wait_status("m1", "up")) << trace();
    ASSERT_TRUE(wait_status("m2", "tested")) << trace();

    sick("m1");
    ASSERT_TRUE(sandbox_.wait_log("group g failing over to m2", 10s)) << trace();
    ASSERT_TRUE(wait_status("m2", "up")) << trace();
    // m1 starts again as a standby and fails its tests: with no member
    // tested there is nothing to fail forward to yet.
    size_t before = published("m1").size();
    ASSERT_TRUE(store_->wait_journal(
        [&](const strings &) {
            strings states = published("m1");
            return std::count(states.begin() + static_cast<long>(before), states.end(),
                              "testing") >= 2;
        },
        10s))
        << trace();
    EXPECT_EQ(log_count("group g trying to failforward to m1"), 0) << trace();

    // No period to wait out: the move follows m1's first passed test.
    healthy("m1");
    ASSERT_TRUE(sandbox_.wait_log("group g trying to failforward to m1", 5s)) << trace();
    ASSERT_TRUE(wait_status("m1", "up")) << trace();
    EXPECT_EQ(group_sets("g"), joined({active_keys(0, "m1", "m1,m2"), moved_keys(1, "m2", "m1,m2"),
                                       moved_keys(0, "m1", "m1,m2")}))
        << trace();
}

// m1 never passes its tests and nothing times it out.
const std::string zero_timeout_group =
    "orderedgroup g\n\tmember m1\n\tmember m2\n\tmutex\n\tfailovertimeout 0\n"
    "\tfailforwardperiod 60\n";

TEST_F(GroupFailover, ZeroFailoverTimeoutNeverFailsOverAMemberThatDoesNotComeUp) {
    healthy("m2");
    start(zero_timeout_group + member("m1", retry_slowly) + member("m2"));
    ASSERT_TRUE(wait_status("m1", "testing")) << trace();
    EXPECT_TRUE(stays_false([&] { return !moves_logged("g").empty(); }, 3s)) << trace();
    EXPECT_EQ(values("tovrin.g.active-connection-name"), strings{"m1"}) << trace();
    EXPECT_EQ(values("tovrin.g.failover-timestamp"), strings{}) << trace();
    EXPECT_EQ(published("m2"), strings{"down"}) << trace();
    EXPECT_NE(store_->get("tovrin.g.status"), "up");
}

TEST_F(GroupFailover, ExternalFailoverMovesOnFromAMemberThatNeverCameUp) {
    healthy("m2");
    start(zero_timeout_group + member("m1", retry_slowly) + member("m2"));
    ASSERT_TRUE(wait_status("m1", "testing")) << trace();

    command("g,cli,failover");
    ASSERT_TRUE(sandbox_.wait_log("external failover command received for g", 5s)) << trace();
    ASSERT_TRUE(sandbox_.wait_log("group g failing over to m2", 5s)) << trace();
    ASSERT_TRUE(wait_status("m2", "up", 5s)) << trace();
    EXPECT_EQ(values("tovrin.g.active-connection-name"), (strings{"m1", "m2"})) << trace();
}

TEST_F(GroupFailover, ExternalFailoverMovesAnOrderedGroupToItsNextMember) {
    healthy("m1");
    healthy("m2");
    start(
        "orderedgroup g\n\tmember m1\n\tmember m2\n\tmutex\n\tfailovertimeout 5\n"
        "\tfailforwardperiod 60\n" +
        member("m1") + member("m2"));
    ASSERT_TRUE(wait_status("g", "up")) << trace();

    command("g,cli,failover");
    ASSERT_TRUE(wait_status("m2", "up")) << trace();
    ASSERT_TRUE(wait_status("g", "up")) << trace();
    EXPECT_EQ(moves_logged("g"), (strings{"external failover command received for g",
                                          "group g has failed", "group g failing over to m2"}))
        << trace();
    EXPECT_EQ(group_sets("g"),
              joined({active_keys(0, "m1", "m1,m2"), moved_keys(1, "m2", "m1,m2")}))
        << trace();
    EXPECT_EQ(store_->get("tovrin.m1.status"), "down");
}

TEST_F(GroupFailover, ExternalFailoverOnAnAnygroupOrAConnOnlyLogs) {
    for (const char *name : {"a1", "a2", "c"})
        healthy(name);
    start("anygroup ag\n\tmember a1\n\tmember a2\n" + member("a1") + member("a2") + member("c"));
    for (const char *name : {"ag", "a1", "a2", "c"})
        ASSERT_TRUE(wait_status(name, "up")) << name << "\n" << trace();
    size_t settled = status_lines().size();

    command("ag,cli,failover");
    command("c,cli,failover");
    ASSERT_TRUE(sandbox_.wait_log("external failover command received for ag", 10s)) << trace();
    ASSERT_TRUE(sandbox_.wait_log("external failover command received for c", 10s)) << trace();
    EXPECT_TRUE(stays_false([&] { return status_lines().size() != settled; }, 1500ms)) << trace();
    EXPECT_EQ(group_keys("ag"), strings{}) << trace();
    EXPECT_EQ(moves_logged("ag"), (strings{"external failover command received for ag",
                                           "external failover command received for c"}))
        << trace();
}

// The same stop with and without mutex: without it the standby m2 is up to
// tested when the stop comes, and the group must take it down as well.
class StopDuringFailover : public GroupFailover, public ::testing::WithParamInterface<bool> {};

TEST_P(StopDuringFailover, EndsDownKeepingTheActiveMember) {
    const bool mutex = GetParam();
    healthy("m1");
    healthy("m2");
    root_.write_file("m1.hold", "");
    // m1's stop lasts until the test lets it end, so the group is caught
    // half-way through its failover.
    start("orderedgroup g\n\tmember m1\n\tmember m2\n" + std::string(mutex ? "\tmutex\n" : "") +
          "\tfailovertimeout 5\n\tfailforwardperiod 60\n" +
          member("m1", "\tstop sh -c \"while test -e " + root_.file("m1.hold") +
                           "; do sleep 0.05; done\"\n") +
          member("m2"));
    ASSERT_TRUE(wait_status("g", "up")) << trace();
    ASSERT_TRUE(wait_status("m2", mutex ? "down" : "tested")) << trace();

    sick("m1");
    ASSERT_TRUE(sandbox_.wait_log("group g failing over to m2", 10s)) << trace();
    ASSERT_TRUE(wait_status("m1", "stopping")) << trace();
    command("g,cli,stop");
    ASSERT_TRUE(sandbox_.wait_log("external stop command received for g", 10s)) << trace();
    std::remove(root_.file("m1.hold").c_str());

    ASSERT_TRUE(wait_status("g", "down", 5s)) << trace();
    ASSERT_TRUE(wait_status("m2", "down", 5s)) << trace();
    EXPECT_TRUE(stays_false([&] { return published("g").back() != "down"; }, 1500ms)) << trace();
    EXPECT_EQ(values("tovrin.g.active-connection-name"), strings{"m1"}) << trace();
    EXPECT_EQ(values("tovrin.g.failover-timestamp"), strings{}) << trace();
    EXPECT_EQ(store_->get("tovrin.m1.status"), "down");
    if (mutex) {
        EXPECT_EQ(published("m2"), strings{"down"}) << trace();
    }
}

std::string mutex_name(const ::testing::TestParamInfo<bool> &param) {
    return param.param ? "Mutex" : "NoMutex";
}

INSTANTIATE_TEST_SUITE_P(GroupFailover, StopDuringFailover, ::testing::Values(true, false),
                         mutex_name);

TEST_F(GroupFailover, AnygroupIsUpWhileAnyMemberIsUp) {
    healthy("a1");
    // a2 tests first a second after a1, so a1 alone takes the group up.
    start("anygroup ag\n\tmember a1\n\tmember a2\n" + member("a1", retry_slowly) +
          member("a2", "\ttestdelay 2\n"));
    ASSERT_TRUE(wait_status("ag", "up")) << trace();
    strings lines = status_lines();
    auto at = [&](const std::string &what) {
        return std::find(lines.begin(), lines.end(), what) - lines.begin();
    };
    EXPECT_LT(at("a1 up"), at("ag up")) << trace();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "a2 up"), 0) << trace();
    const strings group_up = {
        "down",    "waiting to start", "starting", "starting members", "starting up commands",
        "testing", "tested",           "up"};
    EXPECT_EQ(published("ag"), group_up) << trace();

    // Losing a1 while a2 is up leaves the group as it is.
    healthy("a2");
    ASSERT_TRUE(wait_status("a2", "up")) << trace();
    sick("a1");
    ASSERT_TRUE(wait_status("a1", "down")) << trace();
    EXPECT_EQ(published("ag"), group_up) << trace();

    sick("a2");
    ASSERT_TRUE(wait_status("ag", "down")) << trace();
    // Only up to here: a member whose own restart is already under way may
    // start the group again once it is down.
    const strings group_down = {"waiting to stop", "stopping up commands", "stopping members",
                                "stopping", "down"};
    EXPECT_EQ(prefix_of(published("ag"), group_up.size() + group_down.size()),
              joined({group_up, group_down}))
        << trace();
}

TEST_F(GroupFailover, MutexStandbysAreNeverStartedEvenByTheKeepalive) {
    healthy("m1");
    healthy("m2");
    healthy("probe");
    start(
        "global\n\tkeepalive 1\n"
        "orderedgroup g\n\tmember m1\n\tmember m2\n\tmutex\n\tfailovertimeout 5\n"
        "\tfailforwardperiod 60\n" +
        member("m1") + member("m2") + member("probe"));
    ASSERT_TRUE(wait_status("g", "up")) << trace();
    ASSERT_TRUE(wait_status("probe", "up")) << trace();

    // Each round the keepalive repairs the stopped probe, so it has looked
    // at the standby too.
    const std::string repaired = "Keepalive found incorrectly down conn probe - starting now";
    for (int round = 1; round <= 3; round++) {
        command("probe,x,stop");
        ASSERT_TRUE(wait_log_count(repaired, round, 5s)) << trace();
    }
    EXPECT_EQ(published("m2"), strings{"down"}) << trace();
    EXPECT_EQ(log_count("Keepalive found incorrectly down conn m2 - starting now"), 0) << trace();
    EXPECT_EQ(published("m1"), walk_up) << trace();
}

}  // namespace
