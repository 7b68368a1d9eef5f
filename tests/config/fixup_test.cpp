#include "config/fixup.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "supervise/conn.h"
#include "support/log_capture.h"
#include "support/test_inst.h"

namespace {

std::vector<std::string> names(const tovrin_link_list &links) {
    std::vector<std::string> out;
    for (const tovrin_link &link : links)
        out.push_back(link.name);
    return out;
}

std::vector<std::string> conn_order(tovrin_conn_list &list) {
    std::vector<std::string> out;
    for (tovrin_conn &conn : list)
        out.push_back(conn.name);
    return out;
}

using strings = std::vector<std::string>;

class ConfigFixup : public ::testing::Test {
  protected:
    void load(const std::string &text) {
        t.write_config(text);
        ASSERT_EQ(t.load(), 0);
    }
    test_inst t;
};

TEST_F(ConfigFixup, ParentAndChildLinksAreMadeOnBothSides) {
    load("conn a\n\tparent b\nconn b\n");
    EXPECT_EQ(names(t.conn("a")->parents), strings{"b"});
    EXPECT_EQ(names(t.conn("b")->children), strings{"a"});
    EXPECT_EQ(conn_order(t.inst.conns), (strings{"a", "b"}));
    EXPECT_EQ(t.conn("b")->is_deaf, 0);
}

TEST_F(ConfigFixup, BothDirectionsWrittenGiveOneLinkEachSide) {
    load("conn a\n\tparent b\nconn b\n\tchild a\n");
    EXPECT_EQ(names(t.conn("a")->parents), strings{"b"});
    EXPECT_EQ(names(t.conn("b")->children), strings{"a"});
}

TEST_F(ConfigFixup, UndefinedNamesBecomeOneDeafConnAtTheEnd) {
    load("conn a\n\tchild x\nconn b\n\tparent x\n\tparent y\nconn c\n");
    EXPECT_EQ(conn_order(t.inst.conns), (strings{"a", "b", "c", "x", "y"}));
    tovrin_conn *x = t.conn("x");
    EXPECT_EQ(x->is_deaf, 1);
    EXPECT_EQ(x->type, TOVRIN_CONN);
    // First from the parent pass (b names x as parent), then the child pass.
    EXPECT_EQ(names(x->children), strings{"b"});
    EXPECT_EQ(names(x->parents), strings{"a"});
    EXPECT_EQ(t.conn("y")->is_deaf, 1);
    EXPECT_EQ(names(t.conn("y")->children), strings{"b"});
}

TEST_F(ConfigFixup, OwnClausesComeBeforeLinksAddedByThePasses) {
    load("conn a\n\tchild c2\nconn c1\n\tparent a\nconn c2\n");
    EXPECT_EQ(names(t.conn("a")->children), (strings{"c2", "c1"}));
}

TEST_F(ConfigFixup, MembersLearnTheirGroupAndTheFirstGroupWins) {
    log_capture log;
    load("orderedgroup g1\n\tmember m\n\tmember ghost\nanygroup g2\n\tmember m\nconn m\n");
    EXPECT_EQ(t.conn("m")->group_name, "g1");
    EXPECT_EQ(t.conn("ghost")->group_name, "g1");
    EXPECT_EQ(t.conn("ghost")->is_deaf, 1);
    EXPECT_TRUE(log.contains(TOVRIN_LOG_FATAL, "Conn m has multiple groups specified"));
}

TEST_F(ConfigFixup, MoveKeepsOrderArmsTestTimersAndSwapsSettings) {
    load("global\n\tkeepalive 3\nconn b\n\tparent zz\nconn a\n");
    EXPECT_EQ(conn_order(t.inst.conns), (strings{"b", "a", "zz"}));
    for (tovrin_conn &conn : t.inst.conns) {
        EXPECT_TRUE(conn.test_event.initialized()) << conn.name;
        EXPECT_FALSE(conn.test_event.pending()) << conn.name;
    }
    EXPECT_TRUE(t.inst.new_conns.empty());
    EXPECT_EQ(t.inst.new_globals, nullptr);
    EXPECT_EQ(t.inst.globals->keepalive, 3);
    EXPECT_FALSE(t.inst.reloading_config);
}

TEST_F(ConfigFixup, SelfReferencesAndCyclesDoNotLoop) {
    load(
        "conn a\n\tparent a\nconn b\n\tparent c\nconn c\n\tparent b\n"
        "anygroup g\n\tmember g\n");
    EXPECT_EQ(names(t.conn("a")->children), strings{"a"});
    EXPECT_EQ(names(t.conn("b")->children), strings{"c"});
    EXPECT_EQ(names(t.conn("c")->children), strings{"b"});
    EXPECT_EQ(t.conn("g")->group_name, "g");
}

}  // namespace
