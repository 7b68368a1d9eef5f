#include "support/daemon_fixture.h"

#include <signal.h>

#include <algorithm>

using namespace std::chrono_literals;

namespace {

// One set as the store journals it: "CONN set KEY FLAG VALUE", the value
// running to the end of the line, blanks and all.
struct journal_set {
    std::string key;
    std::string flag;
    std::string value;
};

std::optional<journal_set> set_parse(const std::string &line) {
    size_t verb = line.find(' ');
    if (verb == std::string::npos || line.compare(verb, 5, " set ") != 0)
        return std::nullopt;
    size_t key_at = verb + 5;
    size_t key_end = line.find(' ', key_at);
    if (key_end == std::string::npos)
        return std::nullopt;
    size_t flag_end = line.find(' ', key_end + 1);
    if (flag_end == std::string::npos)
        return std::nullopt;
    return journal_set{line.substr(key_at, key_end - key_at),
                       line.substr(key_end + 1, flag_end - key_end - 1), line.substr(flag_end + 1)};
}

bool ends_with(const std::string &text, const std::string &suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The conn whose status key is key, "tovrin.NAME.status"; nullopt for any
// other key.
std::optional<std::string> status_key_name(const std::string &key) {
    const std::string prefix = "tovrin.";
    const std::string suffix = ".status";
    if (key.rfind(prefix, 0) != 0 || !ends_with(key, suffix) ||
        key.size() <= prefix.size() + suffix.size())
        return std::nullopt;
    return key.substr(prefix.size(), key.size() - prefix.size() - suffix.size());
}

// The key of a delete as the store journals it, "CONN delete KEY".
std::optional<std::string> delete_parse(const std::string &line) {
    size_t verb = line.find(' ');
    const std::string word = " delete ";
    if (verb == std::string::npos || line.compare(verb, word.size(), word) != 0)
        return std::nullopt;
    return line.substr(verb + word.size());
}

}  // namespace

void daemon_fixture::start(const std::string &config) {
    root_.make_dirs("var/run");
    root_.write_file("etc/config/tovrin.conf", config);
    store_.emplace(sandbox_.store_socket(), root_.file("journal"));
    daemon_.emplace(sandbox_.start());
}

void daemon_fixture::TearDown() {
    if (!daemon_)
        return;
    store_->stop();
    std::optional<int> status = daemon_->wait_exit(10s);
    EXPECT_EQ(status, 1) << sandbox_.daemon_stderr();
    EXPECT_EQ(sandbox_.daemon_stderr().find("Sanitizer"), std::string::npos)
        << sandbox_.daemon_stderr();
}

daemon_fixture::strings daemon_fixture::values(const std::string &key) const {
    strings out;
    for (const std::string &line : store_->journal()) {
        std::optional<journal_set> set = set_parse(line);
        if (set && set->key == key)
            out.push_back(set->value);
    }
    return out;
}

daemon_fixture::strings daemon_fixture::published(const std::string &name) const {
    const std::string key = "tovrin." + name + ".status";
    strings states;
    for (const std::string &line : store_->journal()) {
        std::optional<journal_set> set = set_parse(line);
        if (set && set->key == key && set->flag == "2")
            states.push_back(set->value);
    }
    return states;
}

daemon_fixture::strings daemon_fixture::status_lines() const {
    const std::string prefix = "tovrin.";
    const std::string suffix = ".status";
    strings out;
    for (const std::string &line : store_->journal()) {
        std::optional<journal_set> set = set_parse(line);
        if (!set || set->flag != "2" || set->key.rfind(prefix, 0) != 0 ||
            !ends_with(set->key, suffix) || set->key.size() <= prefix.size() + suffix.size())
            continue;
        std::string name =
            set->key.substr(prefix.size(), set->key.size() - prefix.size() - suffix.size());
        out.push_back(name + " " + set->value);
    }
    return out;
}

daemon_fixture::strings daemon_fixture::group_keys(
    const std::string &group, const std::optional<std::string> &stamp_as) const {
    const std::string prefix = "tovrin." + group + ".";
    strings out;
    for (const std::string &line : store_->journal()) {
        std::optional<journal_set> set = set_parse(line);
        if (!set || set->key.rfind(prefix, 0) != 0)
            continue;
        std::string suffix = set->key.substr(prefix.size());
        if (suffix == "status")
            continue;
        bool stamp = suffix == "failover-timestamp" && stamp_as.has_value();
        out.push_back(suffix + " " + (stamp ? *stamp_as : set->value));
    }
    return out;
}

bool daemon_fixture::wait_status(const std::string &name, const std::string &state,
                                 std::chrono::milliseconds timeout) {
    return store_->wait_value("tovrin." + name + ".status", state, timeout);
}

bool daemon_fixture::wait_log_count(const std::string &message, int count,
                                    std::chrono::milliseconds timeout) const {
    return wait_until([&] { return log_count(message) >= count; }, timeout);
}

int daemon_fixture::log_count(const std::string &message) const {
    strings messages = sandbox_.log_messages();
    return static_cast<int>(std::count(messages.begin(), messages.end(), message));
}

std::string daemon_fixture::trace() const {
    std::string out = "log:\n";
    for (const std::string &message : sandbox_.log_messages())
        out += "  " + message + "\n";
    out += "sets:\n";
    for (const std::string &line : store_->journal()) {
        std::optional<journal_set> set = set_parse(line);
        if (set && set->key.rfind("tovrin.", 0) == 0)
            out += "  " + set->key + " " + set->value + "\n";
    }
    return out;
}

void daemon_fixture::command(const std::string &text) {
    store_->set("config.tovrin.command", text);
}

void daemon_fixture::reload_send(const std::string &config) {
    root_.write_file("etc/config/tovrin.conf", config);
    daemon_->kill(SIGHUP);
}

bool daemon_fixture::reload(const std::string &config, std::chrono::milliseconds timeout) {
    auto ended = [&] {
        return log_count("Finished Reloading Config") + log_count("Failed To Load Config");
    };
    const int before = ended();
    reload_send(config);
    return wait_until([&] { return ended() > before; }, timeout);
}

size_t daemon_fixture::journal_mark() const {
    return store_->journal().size();
}

size_t daemon_fixture::log_mark() const {
    return sandbox_.log_messages().size();
}

daemon_fixture::strings daemon_fixture::log_from(size_t mark) const {
    strings messages = sandbox_.log_messages();
    if (mark >= messages.size())
        return {};
    return strings(messages.begin() + static_cast<long>(mark), messages.end());
}

daemon_fixture::strings daemon_fixture::status_events_from(size_t mark) const {
    strings journal = store_->journal();
    strings out;
    for (size_t i = mark; i < journal.size(); i++) {
        if (std::optional<journal_set> set = set_parse(journal[i]); set && set->flag == "2") {
            if (std::optional<std::string> name = status_key_name(set->key))
                out.push_back(*name + " " + set->value);
        } else if (std::optional<std::string> key = delete_parse(journal[i])) {
            if (std::optional<std::string> name = status_key_name(*key))
                out.push_back(*name + " deleted");
        }
    }
    return out;
}
