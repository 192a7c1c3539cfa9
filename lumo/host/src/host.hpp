#pragma once

// The program around LibMain: sets it up, starts it, serves commands and watches the control state on the one
// control thread, and stops it at a signal or on command.

#include "clockWatch.hpp"
#include "commandStream.hpp"
#include "commands.hpp"
#include "controlSocket.hpp"
#include "eventList.hpp"
#include "hostSettings.hpp"
#include "machine.hpp"

#include <gim/config.hpp>
#include <lumolib/libMain.hpp>

#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace vosk::host {

// Makes SIGINT, SIGTERM and, where the log has a file, SIGHUP readable. Make it before the worker threads,
// all of which are then free of them; other libraries may have threads already that are not, so that a mask
// alone would not do. One at a time.
class Signals {
public:
    explicit Signals(bool log_has_file);
    ~Signals();
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    // From now on this thread takes them.
    static void Admit();

    // Readable, for poll(), once one has come.
    int GetFd() const { return m_event.Get(); }

    // Which have come since the last call.
    struct Taken {
        bool stop;
        bool hang_up;
    };
    Taken Take() const;

private:
    UniqueFd m_event;
};

class Host final : public ControlTarget {
public:
    // Sets up and starts all threads. Throws what they throw, with none of them running.
    Host(const gim::Config& config, const HostSettings& settings, bool serve_stdin);
    ~Host() override;
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // Serves until a signal or the command "stop". Gives the names of the threads that ended by themselves.
    std::set<std::string> Run(const Signals& signals);

    void SetMode(defs::VoskControlMode mode, std::optional<defs::Camera> camera) override;
    void SetCamera(defs::Camera camera) override;
    void SetReference(const ReferenceBox& reference) override;
    ReferenceBox GetReference() override;
    void SetCentroiding(const lumo::COptions& options) override;
    lumo::COptions GetCentroiding() override;
    void SetCentering(bool enabled) override;
    bool GetCentering() override;
    std::string Status() override;
    void Stop() override { m_running = false; }

private:
    void WaitForWork(const Signals& signals);
    void Serve(Signals::Taken taken);
    void ShowMachine();
    void LookAtControlState();
    void LookAtThreads();
    std::vector<ThreadState> ThreadStates() const;
    void LookAtClock();

    lumo::LibMain m_library;
    const int m_memory_error;  // errno of locking the memory
    std::optional<ControlSocket> m_socket;
    std::optional<CommandStream> m_terminal;
    bool m_running = true;
    Machine m_machine;  // as found when the threads had started
    ClockWatch m_clock_watch{atomclk::AtomClk::now(), ClockWatch::Steady::now()};
    ControlState m_state;
    EventList m_events;
    std::set<std::string> m_threads_ended;  // by themselves; each has been logged
};

}  // namespace vosk::host
