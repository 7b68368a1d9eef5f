#pragma once

#include <string>

// Every fixed path of the daemon. The production daemon uses them as they
// are; the sandbox places each one under a root directory and writes its log
// to a file. Nothing outside paths.cpp knows which of the two is running.
struct tovrin_paths {
    std::string config_file;      // configuration read at start-up and on SIGHUP
    std::string state_dump_file;  // written on SIGUSR1
    std::string graph_dump_file;  // written on SIGUSR2
    std::string snapshot_dir;     // message-queue snapshots go here
    std::string snapshot_marker;  // snapshots are written only while this exists
    std::string uptime_file;      // system uptime, for the boot delay
    std::string run_dir;          // holds the pid file
    std::string store_socket;     // the store daemon's local socket
    std::string log_file;         // empty: log to syslog
};

// The fixed paths of the appliance.
tovrin_paths tovrin_paths_production();

// The same paths placed under root, with the log in root/var/log/tovrin.log.
tovrin_paths tovrin_paths_sandbox(const std::string &root);
