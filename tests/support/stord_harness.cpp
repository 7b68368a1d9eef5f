#include "support/stord_harness.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "stord/client.h"

namespace {

std::string file_text(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    if (in)
        content << in.rdbuf();
    return content.str();
}

}  // namespace

stord_harness::stord_harness(const std::string &socket_path, const std::string &journal_path)
    : socket_path_(socket_path), journal_path_(journal_path) {
    // A listening line left by an earlier store on the same journal must not
    // be taken for this one's.
    std::string stdout_path = journal_path_ + ".stdout";
    ::unlink(stdout_path.c_str());
    process_ = child_process::start(
        {TOVRIN_STORD_BIN, "--socket", socket_path_, "--journal", journal_path_}, stdout_path,
        journal_path_ + ".stderr");

    // stord prints this line only after listen(), so connections made from
    // now on are queued even before the first accept.
    std::string ready = "stord: listening on " + socket_path_ + "\n";
    bool up = wait_until([&] { return file_text(stdout_path) == ready || !process_->running(); },
                         std::chrono::seconds(10));
    if (!up || !process_->running()) {
        ADD_FAILURE() << "stord did not start on " << socket_path_ << "; stderr:\n"
                      << stderr_text();
        throw std::runtime_error("stord did not start");
    }
}

stord_harness::~stord_harness() {
    stop();
}

void stord_harness::stop() {
    if (!process_)
        return;
    process_->kill(SIGTERM);
    auto status = process_->wait_exit(std::chrono::seconds(10));
    if (!status)
        ADD_FAILURE() << "stord did not exit within 10 s of SIGTERM";
    else
        EXPECT_EQ(*status, 0) << "stord stderr:\n" << stderr_text();
    // Kills and reaps it if it is still there.
    process_.reset();
}

void stord_harness::kill() {
    // Resetting the process kills it with SIGKILL and reaps it.
    process_.reset();
}

bool stord_harness::running() {
    return process_ && process_->running();
}

std::optional<std::string> stord_harness::get(const std::string &key) {
    stord_client client(socket_path_);
    return client.get(key);
}

void stord_harness::set(const std::string &key, const std::string &value, int flag) {
    stord_client client(socket_path_);
    client.set(key, value, flag);
    client.sync();
}

bool stord_harness::wait_value(const std::string &key, const std::string &value,
                               std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    stord_client client(socket_path_);
    // The notification sent on subscribing covers a key that already holds
    // the value.
    client.subscribe(key);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() < 0)
            return false;
        auto n = client.next_notification(left);
        if (!n)
            return false;
        if (n->first == key && n->second == value)
            return true;
    }
}

std::vector<std::string> stord_harness::journal() const {
    std::string text = file_text(journal_path_);
    std::vector<std::string> lines;
    std::size_t start = 0;
    // A line still being written has no newline yet and is left out.
    for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        lines.push_back(text.substr(start, end - start));
    return lines;
}

bool stord_harness::wait_journal(const std::function<bool(const std::vector<std::string> &)> &pred,
                                 std::chrono::milliseconds timeout) const {
    return wait_until([&] { return pred(journal()); }, timeout);
}

std::string stord_harness::stderr_text() const {
    return file_text(journal_path_ + ".stderr");
}
