// The stand-in store and its client, as the daemon's tests and operators use
// them.

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <regex>

#include "platform/unique_fd.h"
#include "stord/client.h"
#include "tools/run_program.h"

static ran storectl(const e2e_sandbox &s, strings args) {
    args.insert(args.begin(), {TOVRIN_STORECTL_BIN, "--socket", s.root.file("var/run/stord.sock")});
    return run_program(args, s.root);
}

// The line storectl status puts above the last words of a daemon that went.
static const std::string gone_line = "tovrin is not connected to the store (gone since ";

TEST(StoreTools, StorectlSubcommandsAndTheirStatuses) {
    e2e_sandbox s;
    const std::string socket = s.root.file("var/run/stord.sock");
    EXPECT_EQ(storectl(s, {"set", "a", "hello world"}), ran(0, ""));
    EXPECT_EQ(storectl(s, {"cmd", "wan,cli,restart"}), ran(0, ""));
    EXPECT_EQ(storectl(s, {"get", "a"}), ran(0, "hello world\n"));
    EXPECT_EQ(storectl(s, {"wait", "a", "hello world"}), ran(0, ""));
    EXPECT_EQ(storectl(s, {"dump"}),
              ran(0, "a=hello world\nconfig.tovrin.command=wan,cli,restart\n"));
    EXPECT_EQ(storectl(s, {"del", "a"}), ran(0, ""));
    EXPECT_EQ(storectl(s, {"get", "a"}), ran(1, ""));
    // The journal has a line for each request, as it came.
    EXPECT_TRUE(s.root.read_file("journal").starts_with(
        "1 set a 1 hello world\n1 sync\n2 set config.tovrin.command 1 wan,cli,restart\n"));

    // status: keys nobody connected as tovrin set are not the daemon's.
    storectl(s, {"set", "tovrin.old.status", "up"});
    EXPECT_EQ(storectl(s, {"status"}), ran(0, "tovrin has not connected to the store\n"));

    // A client naming itself tovrin plays the daemon: one line per conn it
    // set a status key for, groups with their active member and last
    // failover in local time. The key from before is not shown.
    setenv("TZ", "UTC", 1);
    auto daemon = std::make_optional<stord_client>(socket, "tovrin");
    daemon->subscribe("config.tovrin.command");
    for (auto [key, value] : {std::pair{"tovrin.a.b.status", "waiting to start"},
                              {"tovrin.up.status", "up"},
                              {"tovrin.up.active-connection-name", "wan"},
                              {"tovrin.up.failover-timestamp", "1795000000"},
                              {"tovrin.gone.connection-names", "wan"},
                              {"tovrin.wan.status", "down"}})
        daemon->set(key, value);
    daemon->sync();
    const std::string table =
        "NAME  STATE             ACTIVE  FAILED OVER\n"
        "a.b   waiting to start\n"
        "up    up                wan     2026-11-18 11:06:40\n"
        "wan   down\n";
    EXPECT_EQ(storectl(s, {"status"}), ran(0, table));

    // A watch redraws when a key of the daemon changes, and when the daemon
    // goes, with its last words marked: each view drawn before the next
    // change.
    s.root.write_file("watch.out", "");
    child_process watch({TOVRIN_STORECTL_BIN, "--socket", socket, "status", "--watch"},
                        s.root.file("watch.out"));
    const std::regex header("NAME ");
    auto views_drawn = [&](long views) {
        return wait_until([&] {
            std::string out = s.root.read_file("watch.out");
            return std::distance(std::sregex_iterator(out.begin(), out.end(), header),
                                 std::sregex_iterator()) == views;
        });
    };
    ASSERT_TRUE(views_drawn(1));
    daemon->set("tovrin.wan.status", "up");
    ASSERT_TRUE(views_drawn(2));
    daemon->set("tovrin.wan.status", "down");
    ASSERT_TRUE(views_drawn(3));
    daemon.reset();
    ASSERT_TRUE(views_drawn(4));
    kill(watch.pid(), SIGTERM);
    EXPECT_EQ(watch.wait_exit(), 0);
    std::string redrawn = s.root.read_file("watch.out");
    EXPECT_EQ(std::regex_replace(redrawn, std::regex("since [-0-9: ]+\\)"), "since TIME)"),
              test_file("tools/golden/status_watch.txt"));
    EXPECT_EQ(storectl(s, {"status", "--watch", "--for", "0.1"}).second,
              redrawn.substr(redrawn.find(gone_line)));

    // A session asked for without a name is refused like any bad frame.
    stord_client nameless(socket);
    nameless.send_raw(stord_frame_encode("29\x1e"));
    EXPECT_TRUE(nameless.wait_closed(10s));
    EXPECT_NE(s.root.read_file("stord.out").find("dropped: empty client name"), std::string::npos)
        << s.root.read_file("stord.out");

    // The latest connection to take the name holds the session: an earlier
    // one subscribing again does not take it back, and its going (once its
    // subscription is gone) changes nothing.
    auto first = std::make_optional<stord_client>(socket, "tovrin");
    stord_client second(socket, "tovrin");
    first->subscribe("k");
    first->set("tovrin.first.status", "up");
    first->sync();
    second.subscribe("k");
    second.set("tovrin.second.status", "up");
    second.sync();
    first->subscribe("k2");
    first->sync();
    const ran second_only(0, "NAME    STATE  ACTIVE  FAILED OVER\nsecond  up\n");
    EXPECT_EQ(storectl(s, {"status"}), second_only);
    first.reset();
    ASSERT_TRUE(wait_until([&] { return second.count_subscriptions("k") == 1; }));
    EXPECT_EQ(storectl(s, {"status"}), second_only);

    for (const strings &args : {strings{"bogus"},
                                {"wait", "a", "b", "-1"},
                                {"status", "--watch", "--for", "1", "--for", "1"}})
        EXPECT_EQ(storectl(s, args).first, 2) << join(args);
    kill(s.store->pid(), SIGTERM);
    EXPECT_EQ(s.store->wait_exit(), 0);
    EXPECT_FALSE(s.root.exists("var/run/stord.sock"));
    ran gone = storectl(s, {"get", "a"});
    EXPECT_EQ(gone.first, 1);
    EXPECT_NE(gone.second, "");
}

// The real daemon names itself as the session storectl follows (how a
// session ends and another takes over is shown above).
TEST(StoreTools, StatusFollowsTheRealDaemon) {
    e2e_sandbox s;
    s.start("conn a\n");
    ASSERT_TRUE(s.wait_status("a", "up"));
    EXPECT_EQ(storectl(s, {"status"}), ran(0, "NAME  STATE  ACTIVE  FAILED OVER\na     up\n"));
    s.stop_store();
}

// Under a service manager stord serves the listening socket it is handed
// as descriptor 3 (LISTEN_PID naming it, LISTEN_FDS 1) and leaves the file
// to the manager; anything else handed over is refused.
TEST(StoreTools, StordServesTheSocketItIsHanded) {
    temp_dir dir;
    const std::string handed = dir.file("handed.sock"), own = dir.file("own.sock");
    unique_fd listening(socket(AF_UNIX, SOCK_STREAM, 0)), unbound(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un addr{AF_UNIX, {}};
    ASSERT_LT(handed.size(), sizeof addr.sun_path);
    handed.copy(addr.sun_path, handed.size());
    ASSERT_EQ(bind(listening.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(listening.get(), 8), 0);
    const struct {
        const char *listen_pid;  // "$$": stord's own
        const char *listen_fds;  // nullptr: not set
        int fd;
        strings args;
        std::optional<int> status;  // nullopt: it serves
        std::string says;
    } cases[] = {
        {"$$", "1", listening.get(), {}, std::nullopt, "passed by the service manager"},
        {"1", "1", listening.get(), {"--socket", own}, std::nullopt, "listening on " + own},
        {"$$", "2", listening.get(), {}, 1, "passed 2 sockets; stord serves exactly one"},
        {"$$", "1", unbound.get(), {}, 1, "not a listening Unix stream socket"},
        {"$$", "1", listening.get(), {"--socket", own}, 2, "one was passed"},
        {"$$", nullptr, listening.get(), {"--socket", own}, 1, "passed 0 sockets"},
        {"1", "1", listening.get(), {"--socket", dir.file(std::string(108, 'x'))}, 1, "too long"},
    };
    for (const auto &c : cases) {
        strings argv = {"/bin/sh", "-c",
                        std::string("LISTEN_PID=") + c.listen_pid +
                            (c.listen_fds ? std::string(" LISTEN_FDS=") + c.listen_fds : "") +
                            " exec \"$0\" \"$@\" 3<&" + std::to_string(c.fd),
                        TOVRIN_STORD_BIN};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        dir.write_file("stord.out", "");
        child_process store(argv, dir.file("stord.out"));
        if (c.status) {
            EXPECT_EQ(store.wait_exit(), c.status) << c.says;
        } else {
            ASSERT_TRUE(wait_until([&] {
                return dir.read_file("stord.out").find(c.says) != std::string::npos;
            })) << dir.read_file("stord.out");
            stord_client client(c.args.empty() ? handed : own);
            client.set("k", "v");
            EXPECT_EQ(client.get("k"), "v");
            kill(store.pid(), SIGTERM);
            EXPECT_EQ(store.wait_exit(), 0);
            // Its own socket file goes with it; the handed one stays.
            EXPECT_FALSE(dir.exists("own.sock"));
            EXPECT_TRUE(dir.exists("handed.sock"));
        }
        EXPECT_NE(dir.read_file("stord.out").find(c.says), std::string::npos)
            << dir.read_file("stord.out");
    }
}
