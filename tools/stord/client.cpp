#include "stord/client.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace {

[[noreturn]] void throw_errno(const std::string &what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

int type_of(const std::string &body) {
    auto type = stord_frame_parse_uint(stord_frame_split(body, 2)[0]);
    return type ? *type : -1;
}

}  // namespace

stord_client::stord_client(const std::string &socket_path, std::string client_name)
    : name_(std::move(client_name)) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof addr.sun_path)
        throw std::runtime_error("stord socket path too long: " + socket_path);
    std::memcpy(addr.sun_path, socket_path.c_str(), socket_path.size() + 1);

    fd_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd_)
        throw_errno("socket");
    if (::connect(fd_.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
        throw_errno("cannot connect to stord at " + socket_path);
}

void stord_client::set(const std::string &key, const std::string &value, int flag) {
    send_body(stord_frame_join({std::to_string(stord_type_set), key, std::to_string(flag), value}));
}

void stord_client::del(const std::string &key) {
    send_body(stord_frame_join({std::to_string(stord_type_delete), key}));
}

void stord_client::subscribe(const std::string &key) {
    send_body(stord_frame_join({std::to_string(stord_type_subscribe), name_, key}));
}

void stord_client::unsubscribe(const std::string &key) {
    send_body(stord_frame_join({std::to_string(stord_type_unsubscribe), name_, key}));
}

void stord_client::watch_pattern(const std::string &pattern) {
    send_body(stord_frame_join({std::to_string(stord_type_watch_pattern), pattern}));
}

void stord_client::sync() {
    send_body(std::to_string(stord_type_sync));
    await_reply(stord_type_sync_reply);
}

std::optional<std::string> stord_client::get(const std::string &key) {
    send_body(stord_frame_join({std::to_string(stord_type_get), key}));
    std::string reply = await_reply(stord_type_get_reply);
    auto fields = stord_frame_split(reply, 4);
    if (fields.size() == 4 && fields[1] == key && fields[2] == "1")
        return std::string(fields[3]);
    if (fields.size() == 3 && fields[1] == key && fields[2] == "0")
        return std::nullopt;
    throw std::runtime_error("stord: malformed get reply");
}

std::map<std::string, std::string> stord_client::dump() {
    send_body(std::to_string(stord_type_dump));
    std::string reply = await_reply(stord_type_dump_reply);
    auto fields = stord_frame_split(reply);
    std::map<std::string, std::string> values;
    for (std::size_t i = 1; i + 1 < fields.size(); i += 2)
        values.emplace(fields[i], fields[i + 1]);
    return values;
}

long stord_client::count_subscriptions(const std::string &key) {
    send_body(stord_frame_join({std::to_string(stord_type_count), key}));
    std::string reply = await_reply(stord_type_count_reply);
    auto fields = stord_frame_split(reply);
    if (fields.size() != 3 || fields[1] != key)
        throw std::runtime_error("stord: malformed count reply");
    auto count = stord_frame_parse_uint(fields[2]);
    if (!count)
        throw std::runtime_error("stord: malformed count reply");
    return *count;
}

stord_session stord_client::session(const std::string &name) {
    send_body(stord_frame_join({std::to_string(stord_type_session), name}));
    std::string reply = await_reply(stord_type_session_reply);
    auto fields = stord_frame_split(reply);
    stord_session s;
    if (fields.size() < 4 || fields[1] != name)
        throw std::runtime_error("stord: malformed session reply");
    s.state = fields[2];
    auto [end, ec] =
        std::from_chars(fields[3].data(), fields[3].data() + fields[3].size(), s.since);
    if (ec != std::errc() || end != fields[3].data() + fields[3].size())
        throw std::runtime_error("stord: malformed session reply");
    s.keys.assign(fields.begin() + 4, fields.end());
    return s;
}

void stord_client::watch_sessions() {
    send_body(std::to_string(stord_type_session_watch));
}

std::optional<std::pair<std::string, std::string>> stord_client::next_notification(
    std::chrono::milliseconds timeout) {
    auto n = next_notification_record(timeout);
    if (!n)
        return std::nullopt;
    return std::make_pair(std::move(n->key), std::move(n->value));
}

std::optional<stord_notification> stord_client::next_notification_record(
    std::chrono::milliseconds timeout) {
    auto deadline = clock::now() + timeout;
    for (;;) {
        std::optional<std::string> body;
        if (!kept_.empty()) {
            body = std::move(kept_.front());
            kept_.pop_front();
        } else {
            body = read_frame(deadline);
            if (!body)
                return std::nullopt;
        }
        if (type_of(*body) != stord_type_notify)
            continue;
        auto n = stord_frame_split_notification(*body);
        if (!n)
            throw std::runtime_error("stord: malformed notification");
        return n;
    }
}

void stord_client::send_raw(const std::string &bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(fd_.get(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw_errno("write to stord");
        done += static_cast<std::size_t>(n);
    }
}

std::optional<std::string> stord_client::next_frame(std::chrono::milliseconds timeout) {
    if (!kept_.empty()) {
        std::string body = std::move(kept_.front());
        kept_.pop_front();
        return body;
    }
    return read_frame(clock::now() + timeout);
}

bool stord_client::wait_closed(std::chrono::milliseconds timeout) {
    auto deadline = clock::now() + timeout;
    try {
        while (read_frame(deadline)) {
        }
    } catch (const std::runtime_error &) {
        if (!closed_)
            throw;
        return true;
    }
    return false;
}

bool stord_client::wait_drained(std::chrono::milliseconds timeout) {
    auto deadline = clock::now() + timeout;
    for (;;) {
        // On a Unix stream socket the sender is charged for every byte until
        // the peer has read it.
        int queued = 0;
        if (::ioctl(fd_.get(), SIOCOUTQ, &queued) != 0)
            throw_errno("ioctl SIOCOUTQ");
        if (queued == 0)
            return true;
        if (clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void stord_client::send_body(const std::string &body) {
    send_raw(stord_frame_encode(body));
}

std::optional<std::string> stord_client::read_frame(clock::time_point deadline) {
    std::string body;
    for (;;) {
        switch (reader_.next(body)) {
            case stord_frame_reader::result::frame:
                return body;
            case stord_frame_reader::result::oversized:
                throw std::runtime_error("stord: oversized frame");
            case stord_frame_reader::result::incomplete:
                break;
        }
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock::now());
        pollfd pfd{fd_.get(), POLLIN, 0};
        int ready = ::poll(&pfd, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0)
            throw_errno("poll on stord socket");
        if (ready == 0)
            return std::nullopt;
        char buf[65536];
        ssize_t n = ::recv(fd_.get(), buf, sizeof buf, MSG_DONTWAIT);
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        // A reset is how a close reaches us when the store dropped us with
        // some of our requests still unread.
        if (n == 0 || (n < 0 && errno == ECONNRESET)) {
            closed_ = true;
            throw std::runtime_error("stord closed the connection");
        }
        if (n < 0)
            throw_errno("read from stord");
        reader_.feed(std::string_view(buf, static_cast<std::size_t>(n)));
    }
}

std::string stord_client::await_reply(int type) {
    auto deadline = clock::now() + reply_timeout_;
    for (;;) {
        auto body = read_frame(deadline);
        if (!body)
            throw std::runtime_error("stord did not answer in time");
        int got = type_of(*body);
        if (got == type)
            return std::move(*body);
        if (got == stord_type_notify || got == stord_type_session_event)
            kept_.push_back(std::move(*body));
    }
}
