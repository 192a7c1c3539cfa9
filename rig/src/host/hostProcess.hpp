#pragma once

// The system under test as a child process: its start, its control socket, its end. Used by the thread that
// drives the run.

#include "host/hostStatus.hpp"

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

namespace vosk::rig {

// Of the names in shared memory of the host that this process starts.
std::string ShmPrefix();

class HostProcess {
public:
    struct Files {
        std::filesystem::path program;
        std::filesystem::path document;
        std::filesystem::path socket;
        std::filesystem::path log;  // takes the host's standard output and error
    };

    // Starts the host. Throws std::runtime_error if that can't be done.
    explicit HostProcess(Files files);
    // Ends the host by force if it still runs.
    ~HostProcess();
    HostProcess(const HostProcess&) = delete;
    HostProcess& operator=(const HostProcess&) = delete;

    // Waits until the host answers on its control socket. Throws, with the end of its log, if it doesn't.
    void WaitReady(std::chrono::milliseconds patience);

    // One line each way. Throws std::runtime_error if the host is gone or answers with an error.
    std::string Ask(const std::string& line);
    HostStatus Status();

    bool Running();
    void Terminate();  // SIGTERM; returns at once
    // Exit code, or 128 and the number of the signal that ended it; nothing if it runs on.
    std::optional<int> WaitExit(std::chrono::milliseconds patience);

private:
    void Connect();
    void EndByForce();
    void CheckExit();

    Files m_files;
    pid_t m_pid = -1;
    int m_connection = -1;
    std::optional<int> m_exit;
    std::string m_received;  // bytes behind the last whole line
};

}  // namespace vosk::rig
