#pragma once

// One run of a scenario, from calibration data to verdict: starts the host and the peers, takes the
// scenario's steps at their times, ends everything in order and gathers what is known. Runs on the program's
// main thread.

#include "calibration.hpp"
#include "host/ports.hpp"
#include "peers/peer.hpp"
#include "report/progress.hpp"

#include <pktwire/udpSocket.hpp>

#include <filesystem>
#include <memory>
#include <vector>

namespace vosk::rig {

struct RunPaths {
    std::filesystem::path host;  // the host's program
    std::filesystem::path data;  // calibration data, made here if they are missing
    std::filesystem::path out;   // document, log, report
};

// All that surround the host, in the order in which they start and stop. A new peer is a line in this
// function. The arguments outlive the peers. `files`: where the cameras put what the host reads of them.
std::vector<std::unique_ptr<Peer>> MakePeers(const Scenario& scenario, const LoopCalibration& calibration,
                                             const ModeTimeline& modes, Ports ports,
                                             const std::filesystem::path& files);
std::string MakeHostDocument(const Scenario& scenario, const std::vector<std::unique_ptr<Peer>>& peers);

class Run {
public:
    // Throws std::runtime_error if the run can't be set up.
    Run(Scenario scenario, RunPaths paths);

    // Blocks for the run's duration. True if the verdict holds. Throws std::runtime_error if the host can't
    // be started; what goes wrong later is in the verdict.
    bool Execute();

    // From a signal handler: ends the run early, in order.
    static void Interrupt() noexcept;

private:
    struct Stage;  // everything that lives during a run

    void Drive(Stage& stage);
    void TakeStep(Stage& stage, const Step& step);
    void ChangeMode(Stage& stage, defs::VoskControlMode mode);
    void TellHost(Stage& stage, const StepAction& action);
    void StopHost(Stage& stage);
    void AskStatus(Stage& stage);
    void PollHost(Stage& stage);
    void ShowProgress(Stage& stage, double time);
    void End(Stage& stage);
    bool Report(Stage& stage);

    Scenario m_scenario;
    RunPaths m_paths;
    pktwire::detail::FileDescriptor m_lock;  // on the directory of the run, which is this run's alone
    Progress m_progress;
    RunFacts m_facts;
};

}  // namespace vosk::rig
