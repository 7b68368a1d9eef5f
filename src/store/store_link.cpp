#include "store/store_link.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "daemon/log.h"
#include "store/command.h"
#include "store/frame.h"
#include "supervise/inst.h"

namespace {

// The frame text of one request, its first four bytes reserved for the
// length; empty when it cannot be formatted.
std::string request_format(int type, const char *key, int flag, const char *value) {
    char *text = nullptr;
    int n = -1;
    switch (type) {
        case TOVRIN_STORE_SET:
            n = asprintf(&text, "    %d\x1e%s\x1e%d\x1e%s", type, key, flag, value);
            break;
        case TOVRIN_STORE_SUBSCRIBE:
        case TOVRIN_STORE_UNSUBSCRIBE:
            n = asprintf(&text, "    %d\x1e%s\x1e%s", type, TOVRIN_STORE_CLIENT, key);
            break;
        case TOVRIN_STORE_DELETE:
            n = asprintf(&text, "    %d\x1e%s", type, key);
            break;
    }
    std::unique_ptr<char, free_deleter> owned(text);
    std::string frame;
    if (n > 0)
        frame.assign(owned.get(), static_cast<size_t>(n));
    return frame;
}

// Ends the process: the link never reconnects, and the exit handler removes
// the pid file.
[[noreturn]] void store_link_lost() {
    exit(1);
}

// Hands a complete notification body to its reader. The body is a C string:
// nothing behind its first NUL is part of the notification.
void notification_dispatch(tovrin_inst *inst, const char *body, size_t length) {
    tovrin_notification n =
        tovrin_notification_parse(std::string_view(body, strnlen(body, length)));
    if (n.type != TOVRIN_STORE_VALUE)
        return;
    if (n.key.empty() || n.value.empty()) {
        tovrin_log(TOVRIN_LOG_FATAL, "error handling stord message");
        return;
    }

    size_t command_key_length = strlen(inst->command_key);
    if (n.key.compare(0, command_key_length, inst->command_key) == 0) {
        if (tovrin_handle_command(inst, n.value) != 0)
            tovrin_log(TOVRIN_LOG_FATAL, "error handling stord message");
        return;
    }

    bool updated = false;
    bool copied = true;
    for (tovrin_var_sub &sub : inst->store_vars) {
        if (sub.stord_prefix != n.key)
            continue;
        updated = true;
        sub.current_val.reset();
        try {
            sub.current_val.emplace(n.value);
        } catch (const std::bad_alloc &) {
            copied = false;
        }
    }
    if (!updated || !copied)
        tovrin_log(TOVRIN_LOG_FATAL, "error handling stord message");
}

}  // namespace

int tovrin_store_send(tovrin_inst *inst, int type, const char *key, int flag, const char *value) {
    if (type != TOVRIN_STORE_SET && type != TOVRIN_STORE_SUBSCRIBE &&
        type != TOVRIN_STORE_UNSUBSCRIBE && type != TOVRIN_STORE_DELETE) {
        tovrin_log(TOVRIN_LOG_FATAL, "unknown message type");
        return -1;
    }
    try {
        std::string frame = request_format(type, key != nullptr ? key : "(null)", flag,
                                           value != nullptr ? value : "(null)");
        if (frame.size() <= TOVRIN_FRAME_HEADER) {
            tovrin_log(TOVRIN_LOG_FATAL, "could not allocate message");
            return -1;
        }
        uint32_t length = htonl(static_cast<uint32_t>(frame.size() - TOVRIN_FRAME_HEADER));
        memcpy(frame.data(), &length, TOVRIN_FRAME_HEADER);
        inst->store_out_queue.push_back(frame);
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "could not allocate message");
        return -1;
    }
    inst->store_write_event.add();
    return 0;
}

int tovrin_store_subscribe(tovrin_inst *inst, const char *key) {
    return tovrin_store_send(inst, TOVRIN_STORE_SUBSCRIBE, key, 0, nullptr);
}

int tovrin_store_unsubscribe(tovrin_inst *inst, const char *key) {
    return tovrin_store_send(inst, TOVRIN_STORE_UNSUBSCRIBE, key, 0, nullptr);
}

void tovrin_store_write(evutil_socket_t fd, short, void *arg) {
    auto *inst = static_cast<tovrin_inst *>(arg);
    if (inst->store_out_queue.empty()) {
        inst->store_write_event.del();
        return;
    }

    std::string_view frame = inst->store_out_queue.front();
    int total = static_cast<int>(frame.size());
    if (inst->globals != nullptr &&
        (inst->globals->instance_log_mask & TOVRIN_INST_LOG_DEBUGSTORD) != 0) {
        int body = total - static_cast<int>(TOVRIN_FRAME_HEADER);
        tovrin_log(TOVRIN_LOG_INFO, "Writing to stord with msg len of %d, tx_len of %d msg of %.*s",
                   total, inst->store_tx_state, body, frame.data() + TOVRIN_FRAME_HEADER);
    }

    // One write per readiness report; a partial write resumes at the next.
    size_t done = static_cast<size_t>(inst->store_tx_state);
    ssize_t n = send(fd, frame.data() + done, frame.size() - done, MSG_NOSIGNAL);
    if (n > 0) {
        inst->store_tx_state += static_cast<int>(n);
        if (inst->store_tx_state >= total) {
            inst->store_out_queue.pop_front();
            inst->store_tx_state = 0;
        }
        return;
    }
    if (n < 0 && errno == EAGAIN)
        return;
    tovrin_log(TOVRIN_LOG_FATAL, "error writing to stord");
}

void tovrin_store_read(evutil_socket_t fd, short, void *arg) {
    auto *inst = static_cast<tovrin_inst *>(arg);

    if (inst->store_rx_state == 0) {
        inst->store_rx_header_count = 0;
        inst->store_rx_length = 0;
        inst->store_rx_count = 0;
        inst->store_rx_state = 1;
    }

    if (inst->store_rx_state == 1) {
        errno = 0;
        ssize_t n = read(fd, inst->store_rx_header + inst->store_rx_header_count,
                         TOVRIN_FRAME_HEADER - inst->store_rx_header_count);
        if (n < 0 && errno == EAGAIN)
            return;
        if (n <= 0) {
            // A closed link reads no bytes and leaves errno as it was set
            // above, so its text is that of no error.
            tovrin_log(TOVRIN_LOG_FATAL, "error reading message from stord %s", strerror(errno));
            store_link_lost();
        }
        inst->store_rx_header_count += static_cast<size_t>(n);
        if (inst->store_rx_header_count < TOVRIN_FRAME_HEADER)
            return;

        inst->store_rx_length = tovrin_frame_length(inst->store_rx_header);
        if (inst->store_rx_length == 0) {
            // An empty body reads as no bytes, as a failed body read does,
            // and is reported the same way. Nothing more will arrive for it,
            // and a read for it would look like a closed link: the next
            // frame follows.
            tovrin_log(TOVRIN_LOG_FATAL, "error reading message from stord");
            inst->store_rx_state = 0;
            return;
        }
        inst->store_rx_state = 2;
        // calloc leaves untouched pages unbacked, so a large announced length
        // costs only what actually arrives.
        inst->store_rx_buffer.reset(static_cast<char *>(calloc(inst->store_rx_length + 1, 1)));
        if (inst->store_rx_buffer == nullptr) {
            tovrin_log(TOVRIN_LOG_FATAL, "error allocating message");
            store_link_lost();
        }
        return;
    }

    ssize_t n = read(fd, inst->store_rx_buffer.get() + inst->store_rx_count,
                     inst->store_rx_length - inst->store_rx_count);
    if (n < 0 && errno == EAGAIN)
        return;
    if (n <= 0) {
        // A closed link would report readiness forever; leaving here is the
        // only way that cannot spin.
        tovrin_log(TOVRIN_LOG_FATAL, "error reading message from stord");
        store_link_lost();
    }
    inst->store_rx_count += static_cast<size_t>(n);
    if (inst->store_rx_count < inst->store_rx_length)
        return;

    // The reader is between frames before the notification is handled, so
    // a handler cut short leaves it ready for the next one.
    std::unique_ptr<char, free_deleter> body = std::move(inst->store_rx_buffer);
    inst->store_rx_state = 0;
    try {
        notification_dispatch(inst, body.get(), inst->store_rx_length);
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "error handling stord message");
    }
}
