#include "supervise/conn_list.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "supervise/conn.h"

namespace {

std::unique_ptr<tovrin_conn> make(const std::string &name) {
    return std::make_unique<tovrin_conn>(nullptr, name, TOVRIN_CONN);
}

std::vector<std::string> order(tovrin_conn_list &list) {
    std::vector<std::string> out;
    for (tovrin_conn &conn : list)
        out.push_back(conn.name);
    return out;
}

// A list walk from the head, to check the index against.
tovrin_conn *walk_find(tovrin_conn_list &list, const std::string &name) {
    for (tovrin_conn &conn : list) {
        if (conn.name == name)
            return &conn;
    }
    return nullptr;
}

TEST(ConnList, KeepsOrderThroughUnlinkAndPop) {
    tovrin_conn_list list;
    tovrin_conn *a = list.push_back(make("a"));
    tovrin_conn *b = list.push_back(make("b"));
    list.push_back(make("c"));
    EXPECT_EQ(order(list), (std::vector<std::string>{"a", "b", "c"}));

    std::unique_ptr<tovrin_conn> taken = list.unlink(b);
    EXPECT_EQ(taken.get(), b);
    EXPECT_EQ(order(list), (std::vector<std::string>{"a", "c"}));
    EXPECT_EQ(list.find("b"), nullptr);
    EXPECT_EQ(list.unlink(b), nullptr);  // no longer in the list

    EXPECT_EQ(list.pop_front().get(), a);
    EXPECT_EQ(order(list), (std::vector<std::string>{"c"}));
    EXPECT_EQ(list.size(), 1u);
}

TEST(ConnList, MovingBetweenListsKeepsTheRecord) {
    tovrin_conn_list pending, in_force;
    tovrin_conn *x = pending.push_back(make("x"));
    pending.push_back(make("y"));
    while (!pending.empty())
        in_force.push_back(pending.pop_front());
    EXPECT_EQ(in_force.find("x"), x);
    EXPECT_EQ(pending.find("x"), nullptr);
    EXPECT_EQ(order(in_force), (std::vector<std::string>{"x", "y"}));
}

TEST(ConnList, IndexAnswersWhatAWalkWouldEvenWithNamesakes) {
    tovrin_conn_list list;
    tovrin_conn *first = list.push_back(make("dup"));
    tovrin_conn *second = list.push_back(make("dup"));
    tovrin_conn *third = list.push_back(make("dup"));
    list.push_back(make("other"));
    EXPECT_EQ(list.find("dup"), first);

    list.unlink(second);  // an unindexed namesake leaves
    EXPECT_EQ(list.find("dup"), first);
    list.unlink(first);  // the indexed one leaves: the next takes over
    EXPECT_EQ(list.find("dup"), third);
    EXPECT_EQ(list.find("dup"), walk_find(list, "dup"));
    list.unlink(third);
    EXPECT_EQ(list.find("dup"), nullptr);
    EXPECT_EQ(order(list), (std::vector<std::string>{"other"}));
}

TEST(ConnList, ManyConnsAreFoundByName) {
    tovrin_conn_list list;
    for (int i = 0; i < 10000; i++)
        list.push_back(make("conn" + std::to_string(i)));
    for (int i = 0; i < 10000; i += 997) {
        std::string name = "conn" + std::to_string(i);
        EXPECT_EQ(list.find(name), walk_find(list, name));
        EXPECT_NE(list.find(name), nullptr);
    }
    // Removing every other one leaves the rest reachable.
    for (int i = 0; i < 10000; i += 2)
        list.unlink(list.find("conn" + std::to_string(i)));
    EXPECT_EQ(list.size(), 5000u);
    EXPECT_EQ(list.find("conn2"), nullptr);
    EXPECT_EQ(list.find("conn3")->name, "conn3");
}

}  // namespace
