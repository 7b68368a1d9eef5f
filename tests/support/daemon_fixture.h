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

    temp_dir root_;
    sandbox sandbox_{root_};
    std::optional<stord_harness> store_;
    std::optional<child_process> daemon_;
};
