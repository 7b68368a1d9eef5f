// stord: a small key-value store with subscriptions on a Unix stream socket,
// standing in for the appliance's store daemon in tests and development.
// Under a service manager it serves the socket that manager passes it.
//
//   stord [--socket PATH] [--journal FILE]

#include <event2/event.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "stord/activation.h"
#include "stord/frame.h"
#include "stord/stord_fd.h"
#include "stord/store.h"

namespace {

struct event_free_fn {
    void operator()(event *ev) const { event_free(ev); }
};
struct event_base_free_fn {
    void operator()(event_base *base) const { event_base_free(base); }
};
struct file_close_fn {
    void operator()(std::FILE *f) const { std::fclose(f); }
};
using event_ptr = std::unique_ptr<event, event_free_fn>;
using event_base_ptr = std::unique_ptr<event_base, event_base_free_fn>;
using file_ptr = std::unique_ptr<std::FILE, file_close_fn>;

// A subscriber that stops reading is dropped once this much waits for it.
constexpr std::size_t max_pending_output = 64u * 1024 * 1024;

class stord_server;

// One accepted connection. Its events point at it, so it never moves: the
// server holds it by unique_ptr and frees it (and with it the events) only
// through stord_server::conn_drop.
struct stord_conn {
    stord_server *server;
    std::uint64_t id;
    stord_fd fd;
    stord_frame_reader reader;
    std::string out;
    std::size_t out_done = 0;  // bytes of out already written
    event_ptr read_ev;
    event_ptr write_ev;
};

class stord_server {
  public:
    explicit stord_server(std::FILE *journal) : store_(journal) {}
    ~stord_server();
    stord_server(const stord_server &) = delete;
    stord_server &operator=(const stord_server &) = delete;

    // Binds and listens on path, replacing a stale socket file; 0 or -1
    // after printing why.
    int listen_on(const std::string &path);
    // Serves the listening socket fd, which it takes; the socket file is
    // left to whoever made it. 0 or -1 after printing why.
    int listen_inherited(int fd);
    // Serves until SIGTERM or SIGINT.
    int run();

  private:
    static void on_accept(evutil_socket_t fd, short what, void *arg);
    static void on_read(evutil_socket_t fd, short what, void *arg);
    static void on_write(evutil_socket_t fd, short what, void *arg);
    static void on_signal(evutil_socket_t sig, short what, void *arg);

    void conn_read(stord_conn *conn);
    void conn_write(stord_conn *conn);
    // The peer went away: quietly, unless it left a frame half sent.
    void conn_gone(stord_conn *conn);
    // Journals and logs why a frame from conn was refused, with the start of
    // its body when there is one, and drops conn.
    void conn_reject(stord_conn *conn, const std::string &reason,
                     std::optional<std::string_view> body);
    void conn_drop(stord_conn *conn, const char *why);
    // Queues the frames a request caused; false when conn (if given) had to
    // be dropped on the way.
    bool deliver(stord_conn *conn, std::vector<stord_store::outgoing> &frames);
    int events_setup();

    // Declared first so it is freed last, after every event that uses it.
    event_base_ptr base_{event_base_new()};
    stord_store store_;
    std::string path_;  // set once the socket file is ours to remove
    stord_fd listen_fd_;
    event_ptr listen_ev_;
    event_ptr sigterm_ev_;
    event_ptr sigint_ev_;
    std::map<std::uint64_t, std::unique_ptr<stord_conn>> conns_;
    std::uint64_t last_conn_id_ = 0;
};

stord_server::~stord_server() {
    // Connections and their events go before the base (member order does the
    // rest); the socket file goes with the listener.
    conns_.clear();
    if (!path_.empty())
        ::unlink(path_.c_str());
}

int stord_server::listen_on(const std::string &path) {
    if (!base_) {
        std::fprintf(stderr, "stord: cannot create event base\n");
        return -1;
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path) {
        std::fprintf(stderr, "stord: socket path is empty or too long: %s\n", path.c_str());
        return -1;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);

    listen_fd_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!listen_fd_) {
        std::fprintf(stderr, "stord: socket: %s\n", std::strerror(errno));
        return -1;
    }

    // Only a socket nobody answers on is stale. Any other file there is left
    // alone and bind reports it.
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
        stord_fd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (probe &&
            ::connect(probe.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0) {
            std::fprintf(stderr, "stord: another store is listening on %s\n", path.c_str());
            return -1;
        }
        ::unlink(path.c_str());
    }
    if (::bind(listen_fd_.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        std::fprintf(stderr, "stord: cannot bind %s: %s\n", path.c_str(), std::strerror(errno));
        return -1;
    }
    path_ = path;
    if (::listen(listen_fd_.get(), 64) != 0) {
        std::fprintf(stderr, "stord: cannot listen on %s: %s\n", path.c_str(),
                     std::strerror(errno));
        return -1;
    }
    return events_setup();
}

int stord_server::listen_inherited(int fd) {
    listen_fd_.reset(fd);
    if (!base_) {
        std::fprintf(stderr, "stord: cannot create event base\n");
        return -1;
    }
    return events_setup();
}

int stord_server::events_setup() {
    listen_ev_.reset(
        event_new(base_.get(), listen_fd_.get(), EV_READ | EV_PERSIST, on_accept, this));
    sigterm_ev_.reset(evsignal_new(base_.get(), SIGTERM, on_signal, this));
    sigint_ev_.reset(evsignal_new(base_.get(), SIGINT, on_signal, this));
    if (!listen_ev_ || !sigterm_ev_ || !sigint_ev_ || event_add(listen_ev_.get(), nullptr) != 0 ||
        event_add(sigterm_ev_.get(), nullptr) != 0 || event_add(sigint_ev_.get(), nullptr) != 0) {
        std::fprintf(stderr, "stord: cannot set up events\n");
        return -1;
    }
    return 0;
}

int stord_server::run() {
    return event_base_dispatch(base_.get()) < 0 ? -1 : 0;
}

void stord_server::on_accept(evutil_socket_t fd, short, void *arg) {
    auto *server = static_cast<stord_server *>(arg);
    for (;;) {
        stord_fd client(::accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!client) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                std::fprintf(stderr, "stord: accept: %s\n", std::strerror(errno));
            return;
        }
        auto conn = std::make_unique<stord_conn>();
        conn->server = server;
        conn->id = ++server->last_conn_id_;
        conn->fd = std::move(client);
        conn->read_ev.reset(event_new(server->base_.get(), conn->fd.get(), EV_READ | EV_PERSIST,
                                      on_read, conn.get()));
        conn->write_ev.reset(event_new(server->base_.get(), conn->fd.get(), EV_WRITE | EV_PERSIST,
                                       on_write, conn.get()));
        if (!conn->read_ev || !conn->write_ev || event_add(conn->read_ev.get(), nullptr) != 0) {
            std::fprintf(stderr, "stord: connection %llu: cannot set up events\n",
                         static_cast<unsigned long long>(conn->id));
            continue;
        }
        server->conns_.emplace(conn->id, std::move(conn));
    }
}

void stord_server::on_read(evutil_socket_t, short, void *arg) {
    auto *conn = static_cast<stord_conn *>(arg);
    conn->server->conn_read(conn);
}

void stord_server::on_write(evutil_socket_t, short, void *arg) {
    auto *conn = static_cast<stord_conn *>(arg);
    conn->server->conn_write(conn);
}

void stord_server::on_signal(evutil_socket_t, short, void *arg) {
    auto *server = static_cast<stord_server *>(arg);
    event_base_loopbreak(server->base_.get());
}

void stord_server::conn_read(stord_conn *conn) {
    char buf[65536];
    ssize_t n = ::recv(conn->fd.get(), buf, sizeof buf, 0);
    if (n < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)
            return;
        // A reset only says the peer closed before reading all we sent.
        if (errno == ECONNRESET)
            conn_gone(conn);
        else
            conn_drop(conn, std::strerror(errno));
        return;
    }
    if (n == 0) {
        conn_gone(conn);
        return;
    }
    conn->reader.feed(std::string_view(buf, static_cast<std::size_t>(n)));

    std::string body;
    std::vector<stord_store::outgoing> frames;
    for (;;) {
        auto result = conn->reader.next(body);
        if (result == stord_frame_reader::result::incomplete)
            return;
        if (result == stord_frame_reader::result::oversized) {
            conn_reject(conn,
                        "announced body longer than " +
                            std::to_string(stord_frame_max_body / (1024 * 1024)) + " MiB",
                        std::nullopt);
            return;
        }
        frames.clear();
        if (auto refused = store_.handle(conn->id, body, frames)) {
            conn_reject(conn, *refused, body);
            return;
        }
        if (!deliver(conn, frames))
            return;
    }
}

bool stord_server::deliver(stord_conn *conn, std::vector<stord_store::outgoing> &frames) {
    std::vector<std::uint64_t> overfull;
    for (auto &frame : frames) {
        auto it = conns_.find(frame.conn);
        if (it == conns_.end())
            continue;
        stord_conn *to = it->second.get();
        if (to->out.size() - to->out_done + frame.frame.size() > max_pending_output) {
            if (overfull.empty() || overfull.back() != to->id)
                overfull.push_back(to->id);
            continue;
        }
        to->out += frame.frame;
        // Write interest only while output waits; a pending event stays as is.
        if (event_pending(to->write_ev.get(), EV_WRITE, nullptr) == 0)
            event_add(to->write_ev.get(), nullptr);
    }
    bool self_kept = true;
    for (auto id : overfull) {
        auto it = conns_.find(id);
        if (it == conns_.end())
            continue;
        if (it->second.get() == conn)
            self_kept = false;
        conn_drop(it->second.get(), "not reading its notifications");
    }
    return self_kept;
}

void stord_server::conn_write(stord_conn *conn) {
    if (conn->out_done < conn->out.size()) {
        ssize_t n = ::send(conn->fd.get(), conn->out.data() + conn->out_done,
                           conn->out.size() - conn->out_done, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)
                return;
            if (errno == EPIPE || errno == ECONNRESET)
                conn_gone(conn);
            else
                conn_drop(conn, std::strerror(errno));
            return;
        }
        conn->out_done += static_cast<std::size_t>(n);
    }
    if (conn->out_done == conn->out.size()) {
        conn->out.clear();
        conn->out_done = 0;
        event_del(conn->write_ev.get());
    } else if (conn->out_done > 1024 * 1024) {
        // Keep a slow reader's buffer from holding everything ever sent.
        conn->out.erase(0, conn->out_done);
        conn->out_done = 0;
    }
}

void stord_server::conn_gone(stord_conn *conn) {
    std::size_t partial = conn->reader.buffered();
    if (partial == 0)
        conn_drop(conn, nullptr);
    else
        conn_reject(conn,
                    "disconnected in the middle of a frame (" + std::to_string(partial) +
                        " bytes received)",
                    std::nullopt);
}

void stord_server::conn_reject(stord_conn *conn, const std::string &reason,
                               std::optional<std::string_view> body) {
    store_.journal_rejected(conn->id, reason);
    std::string why = reason;
    if (body) {
        constexpr std::size_t shown = 100;
        why += ": \"" + stord_frame_escape(body->substr(0, shown));
        if (body->size() > shown)
            why += "...";
        why += "\"";
    }
    conn_drop(conn, why.c_str());
}

void stord_server::conn_drop(stord_conn *conn, const char *why) {
    if (why != nullptr)
        std::fprintf(stderr, "stord: connection %llu: dropped: %s\n",
                     static_cast<unsigned long long>(conn->id), why);
    std::vector<stord_store::outgoing> frames;
    store_.drop_connection(conn->id, frames);
    // Frees the events too; libevent allows that from the event's own
    // callback, and nothing touches conn after this.
    conns_.erase(conn->id);
    deliver(nullptr, frames);
}

int usage() {
    std::fprintf(stderr, "usage: stord [--socket PATH] [--journal FILE]\n");
    return 2;
}

}  // namespace

int main(int argc, char **argv) {
    std::optional<std::string> socket_path;
    std::optional<std::string> journal_path;
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        std::optional<std::string> *target = arg == "--socket"    ? &socket_path
                                             : arg == "--journal" ? &journal_path
                                                                  : nullptr;
        // Each option once: a second one is more likely a slip than an
        // override.
        if (target == nullptr || target->has_value() || i + 1 >= argc)
            return usage();
        *target = argv[++i];
    }
    std::string why;
    int inherited = stord_socket_inherited(&why);
    if (!why.empty()) {
        std::fprintf(stderr, "stord: %s\n", why.c_str());
        return 1;
    }
    if (inherited >= 0 && socket_path) {
        std::fprintf(stderr, "stord: --socket is for a socket of its own, but one was passed\n");
        return 2;
    }
    if (!socket_path)
        socket_path = stord_default_socket;

    file_ptr journal;
    if (journal_path) {
        journal.reset(std::fopen(journal_path->c_str(), "w"));
        if (!journal) {
            std::fprintf(stderr, "stord: cannot open journal %s: %s\n", journal_path->c_str(),
                         std::strerror(errno));
            return 1;
        }
    }

    // Declared after the journal it writes to, so it is destroyed first.
    stord_server server(journal.get());
    if (inherited >= 0) {
        if (server.listen_inherited(inherited) != 0)
            return 1;
        std::printf("stord: listening on the socket passed by the service manager\n");
    } else {
        if (server.listen_on(*socket_path) != 0)
            return 1;
        std::printf("stord: listening on %s\n", socket_path->c_str());
    }
    std::fflush(stdout);
    if (server.run() != 0) {
        std::fprintf(stderr, "stord: event loop failed\n");
        return 1;
    }
    return 0;
}
