#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/sandbox.h"
#include "support/stord_harness.h"
#include "support/temp_dir.h"

// The daemon on a configuration of real commands, in a private root, against
// the real store. What the daemon published is read back from the store's
// journal, what it logged from its log file.
class daemon_fixture : public ::testing::Test {
  protected:
    using strings = std::vector<std::string>;

    // Writes config as the daemon's configuration file, then starts the
    // store and the daemon on it.
    void start(const std::string &config);
    // Stops the store, which must end the daemon with status 1 and no
    // sanitizer report.
    void TearDown() override;

    // Every value set for key, in the order the store received them.
    strings values(const std::string &key) const;
    // The states published for name, in order.
    strings published(const std::string &name) const;
    // "name state" for every status published, in journal order.
    strings status_lines() const;
    // "suffix value" for every key the daemon set under "tovrin.<group>."
    // other than the status, in order; with stamp_as set, the failover
    // timestamp's value is replaced by it so sequences can be compared whole.
    strings group_keys(const std::string &group,
                       const std::optional<std::string> &stamp_as = std::nullopt) const;

    // True once name's published status is state, false after timeout.
    bool wait_status(const std::string &name, const std::string &state,
                     std::chrono::milliseconds timeout = std::chrono::seconds(15));
    // True once message has been logged at least count times.
    bool wait_log_count(const std::string &message, int count,
                        std::chrono::milliseconds timeout = std::chrono::seconds(15)) const;
    // How many log lines carry exactly message.
    int log_count(const std::string &message) const;

    // The log and every status and group key set so far, for failure
    // messages.
    std::string trace() const;

    // Sends a control command as an operator would, "NAME,SOURCE,ACTION".
    void command(const std::string &text);

    // Replaces the configuration file with config and sends the daemon
    // SIGHUP, without waiting. The daemon handles the signal only once its
    // loop runs: call this after a first status was published.
    void reload_send(const std::string &config);
    // reload_send, then true once one more reload has ended, finished
    // ("Finished Reloading Config") or refused ("Failed To Load Config"),
    // than had before; false after timeout.
    bool reload(const std::string &config,
                std::chrono::milliseconds timeout = std::chrono::seconds(15));

    // How many complete journal lines and log messages there are so far:
    // marks for the *_from readers below.
    size_t journal_mark() const;
    size_t log_mark() const;
    // The log messages from the mark-th on.
    strings log_from(size_t mark) const;
    // From the mark-th journal line on, in order: "name state" for every
    // status set and "name deleted" for every status key deleted.
    strings status_events_from(size_t mark) const;

    temp_dir root_;
    sandbox sandbox_{root_};
    std::optional<stord_harness> store_;
    std::optional<child_process> daemon_;
};
