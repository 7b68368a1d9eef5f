// Makes one chosen allocation fail and checks that the command subsystem
// survives it: no crash, no leak (the sanitizer build checks that), nothing
// half made left behind, and the failure logged.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstddef>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "command/file_dep.h"
#include "command/tokenizer.h"
#include "command/var.h"
#include "platform/unique_fd.h"
#include "supervise/conn.h"
#include "supervise/inst.h"
#include "support/alloc_failure.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

// Never-ending sweeps would mean the code allocates without bound.
constexpr long max_allocations = 100000;

class AllocationFailure : public ::testing::Test {
  protected:
    void SetUp() override {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        daemon_end.reset(pair[0]);
        store_end.reset(pair[1]);
        ASSERT_EQ(fcntl(daemon_end.get(), F_SETFL, O_NONBLOCK), 0);
        ASSERT_NE(tovrin_inst_init(daemon_end.get(), &inst), nullptr);
        inst.new_globals = tovrin_globals_new();
        inst.store_out_queue.clear();
        // Debug is off: nothing may be logged before the failure, because the
        // log capture allocates too.
        conn = add("a-conn-with-a-long-name", {"parent-one-long-name", "parent-two-long-name"});
        tovrin_conn *one = add("parent-one-long-name", {});
        tovrin_conn *two = add("parent-two-long-name", {});
        ASSERT_EQ(tovrin_conn_add_var(conn, "own-variable-name", "a value longer than sso"), 0);
        ASSERT_EQ(tovrin_conn_add_var(one, "shared-variable", "value of the first parent"), 0);
        ASSERT_EQ(tovrin_conn_add_var(two, "shared-variable", "value of the second parent"), 0);
    }

    void TearDown() override { allocation_failure_happened(); }

    tovrin_conn *add(const std::string &name, const std::vector<std::string> &parents) {
        tovrin_conn *c = inst.conns.push_back(
            tovrin_conn_new(&inst, name, TOVRIN_CONN, 60, 30, 30, 30, 1, -1, 0));
        c->log_mask = 0;
        for (const std::string &parent : parents)
            tovrin_conn_add_parent(c, parent);
        return c;
    }

    size_t var_count(const tovrin_conn *c) {
        size_t n = 0;
        for (const tovrin_var_list &list : c->vars)
            n += list.size();
        return n;
    }

    unique_fd daemon_end, store_end;
    tovrin_inst inst;
    tovrin_conn *conn = nullptr;
};

TEST_F(AllocationFailure, TokenizerGivesNoTokenWhicheverAllocationFails) {
    // Long tokens, every strategy, and more nested quotes than fit in a
    // string without allocating.
    const std::string quotes = "\"'\"'\"'\"'\"'\"'\"'\"'\"'";
    const std::string command = "/usr/bin/some-long-program-name \"quoted argument here\" " +
                                std::string("%own-variable-name% %all:shared-variable% ") +
                                "%parents_all:shared-variable%-suffix x" + quotes +
                                std::string(quotes.rbegin(), quotes.rend()) + "y\n";
    const std::vector<std::string> expected = {
        "/usr/bin/some-long-program-name",
        "quoted argument here",
        "a value longer than sso",
        "value of the first parent value of the second parent",
        "value of the first parent value of the second parent-suffix",
        "xy",
    };
    std::set<std::string> seen;
    long k = 0;
    for (;; k++) {
        ASSERT_LT(k, max_allocations);
        SCOPED_TRACE(k);
        log_capture log;
        allocation_fail_after(k);
        std::unique_ptr<parsed_argv> args = str2argv(conn, command.c_str());
        if (!allocation_failure_happened()) {
            ASSERT_NE(args, nullptr);
            EXPECT_EQ(args->argv, expected);
            EXPECT_TRUE(log.records().empty());
            break;
        }
        ASSERT_EQ(log.records().size(), 1u);
        const log_record &record = log.records().front();
        EXPECT_EQ(record.priority, TOVRIN_LOG_FATAL);
        seen.insert(record.message);
        if (k == 0) {
            EXPECT_EQ(args, nullptr);
            EXPECT_EQ(record.message, "argv_init: failed to calloc struct parsed_argv");
        } else if (k == 1) {
            EXPECT_EQ(args, nullptr);
            EXPECT_EQ(record.message, "argv_init: failed to calloc");
        } else {
            ASSERT_NE(args, nullptr);
            EXPECT_EQ(args->argc, 0);
            EXPECT_TRUE(args->argv.empty());
            EXPECT_TRUE(args->token.empty());
            EXPECT_TRUE(record.message == "argv_token_finish: failed to calloc" ||
                        record.message == "str2argv: failed to allocate memory")
                << record.message;
        }
    }
    // Every kind of failure was met on the way.
    EXPECT_EQ(seen, (std::set<std::string>{
                        "argv_init: failed to calloc struct parsed_argv",
                        "argv_init: failed to calloc",
                        "argv_token_finish: failed to calloc",
                        "str2argv: failed to allocate memory",
                    }));
}

TEST_F(AllocationFailure, VariableIsAddedWholeOrNotAtAll) {
    const std::string name = "a-variable-name-beyond-sso", value = "a value beyond sso too";
    for (long k = 0;; k++) {
        ASSERT_LT(k, max_allocations);
        SCOPED_TRACE(k);
        size_t before = var_count(conn);
        log_capture log;
        allocation_fail_after(k);
        int result = tovrin_conn_add_var(conn, name, value);
        if (!allocation_failure_happened()) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(var_count(conn), before + 1);
            break;
        }
        EXPECT_EQ(result, -1);
        EXPECT_EQ(var_count(conn), before);
        EXPECT_EQ(log.records(),
                  (std::vector<log_record>{{TOVRIN_LOG_FATAL, "Could not allocate variable"}}));
    }
}

TEST_F(AllocationFailure, StoreVariableIsAddedWholeOrNotAtAll) {
    const std::string name = "a-store-variable-name", key = "some.long.store.key.name";
    std::set<std::vector<std::string>> seen;
    for (long k = 0;; k++) {
        ASSERT_LT(k, max_allocations);
        SCOPED_TRACE(k);
        size_t vars_before = var_count(conn);
        size_t subs_before = inst.store_vars.size();
        size_t frames_before = inst.store_out_queue.size();
        log_capture log;
        int result;
        allocation_fail_after(k);
        result = tovrin_conn_add_stord_var(conn, name, key);
        if (!allocation_failure_happened()) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(var_count(conn), vars_before + 1);
            EXPECT_EQ(inst.store_vars.size(), subs_before + 1);
            EXPECT_EQ(inst.store_out_queue.size(), frames_before + 1);
            break;
        }
        EXPECT_EQ(result, -1);
        EXPECT_EQ(var_count(conn), vars_before);
        EXPECT_EQ(inst.store_vars.size(), subs_before);
        EXPECT_EQ(inst.store_out_queue.size(), frames_before);
        std::vector<std::string> messages = log.messages();
        for (const log_record &record : log.records())
            EXPECT_EQ(record.priority, TOVRIN_LOG_FATAL);
        EXPECT_TRUE(messages == std::vector<std::string>{"Could not allocate variable"} ||
                    messages == (std::vector<std::string>{
                                    "could not allocate message",
                                    "Could not register variable subscription",
                                }))
            << testing::PrintToString(messages);
        seen.insert(messages);
    }
    EXPECT_EQ(seen.size(), 2u);
    // What was added comes out cleanly.
    tovrin_conn_vars_free(conn);
    EXPECT_TRUE(inst.store_vars.empty());
}

TEST_F(AllocationFailure, FileDependencyIsAddedWholeOrNotAtAll) {
    temp_dir dir;
    const std::string path = dir.file("a dependency with a long name");
    dir.write_file("a dependency with a long name", "123456789");
    std::set<std::vector<std::string>> seen;
    for (long k = 0;; k++) {
        ASSERT_LT(k, max_allocations);
        SCOPED_TRACE(k);
        log_capture log;
        allocation_fail_after(k);
        tovrin_conn_add_file_dep(conn, path.c_str());
        if (!allocation_failure_happened()) {
            ASSERT_EQ(conn->file_deps.size(), 1u);
            EXPECT_EQ(conn->file_deps[0].path, path);
            EXPECT_EQ(conn->file_deps[0].checksum, 0xCBF43926u);
            break;
        }
        EXPECT_TRUE(conn->file_deps.empty());
        std::vector<std::string> messages = log.messages();
        EXPECT_TRUE(messages == std::vector<std::string>{"Could not allocate file dependency"} ||
                    messages == (std::vector<std::string>{
                                    "Could not allocate link name",
                                    "Could not allocate file dependency",
                                }))
            << testing::PrintToString(messages);
        seen.insert(messages);
    }
    EXPECT_EQ(seen.size(), 2u);
}

}  // namespace
