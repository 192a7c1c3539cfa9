#pragma once

// The thread at the centre of the AO command path: woken by the input that paces the control mode, it runs
// one pass of the executor, hands the setpoint to M4Output with its planned send time, waits a bounded time
// for M4's answer, and publishes what M4 applied. It meets other threads in exchange objects only.

#include <lumolib/commandCounts.hpp>
#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/lumoThread.hpp>

#include <atomclk/atomClk.hpp>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <optional>
#include <oru/configng/pliConfig.hpp>
#include <shared_mutex>
#include <span>
#include <string>
#include <vosk/ao_tasks/executor.hpp>
#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/sizes.hpp>
#include <vosk/defs/valueTypes.hpp>

namespace vosk::lumo {

class AoTasks : public Thread {
public:
    using time_point = atomclk::AtomClk::time_point;

    // The keys of the node `ao.ao_tasks`; all are required.
    struct Config {
        std::chrono::microseconds m4_send_delay{};  // reference time of a command to its planned send time
        std::chrono::microseconds
            m4_response_timeout{};            // planned send time to the last moment for the answer
        std::uint32_t gpao_highest_mode = 0;  // first element that cascade modes take from high order
        bool delta_scaling = false;
        std::uint32_t managed_modes = 0;
        std::string m2p_path;  // FITS, float, managed_modes by 5352
        float threshold_velocity = 0.0F;
        float threshold_gap = 0.0F;
    };

    // When things happened in one cycle; 0 where they did not.
    struct TimeStats {
        time_point t0{};  // the command's time stamp in the INS-driven modes, else data_received
        time_point data_received{};
        time_point process_m4_setpoint{};
        time_point m4_cmd_send{};  // planned
        time_point send_ao_m4_applied{};

        void Clear() { *this = {}; }
    };

    // Reads the M2P file and builds the executor. Throws std::runtime_error "ERR: Unable to load M2P FITS
    // file: ..." and what the blocks throw on bad parameters.
    explicit AoTasks(const oru::configng::PliConfigInstanceNode& node);

    static Config Configure(const oru::configng::PliConfigInstanceNode& node);

    // Closes the executor's pass: waits until `deadline` for M4's answer to m_sample_id, unless `source` is
    // NONE, and chooses the variant of the last step. Gives the applied setpoint in INS modal space, valid
    // until the next pass, or nothing where the thread was stopped. `applied_time` is set where M4 answered.
    // Worker thread only, after Step3. Takes the shared lock of M4InputDataSync.
    std::optional<std::span<float, defs::INS_CMD_SIZE>> ReceiveAndProcessAmSetpointApplied(
        const time_point& deadline, defs::AoCommandSource source, time_point& applied_time);

    void PrintTimeStats() const;

protected:
    void Work(std::promise<void>& started) override;

    std::uint32_t m_sample_id = 0;  // of the last setpoint handed over; wraps. Worker thread only.

private:
    struct Plan {
        defs::VoskControlMode mode;
        defs::AoCommandSource source;  // NONE also where the setpoint is kept back
        time_point send_time;
    };

    // Why M4's answer counts as none.
    enum class AnswerFault { NONE, MISSING, OTHER_SAMPLE, NOT_FINITE };

    // One wake-up and all that follows from it. False: the thread was stopped while it waited for input.
    bool RunCycle();
    // Takes the command in under the lock of its object, drives the handover and plans the send time.
    Plan ReceiveCommand();
    void AssembleCommand();
    void ClearInputs();
    void SendSetpoint(Plan& plan);
    void PublishApplied(const Plan& plan, std::span<float, defs::INS_CMD_SIZE> applied,
                        time_point applied_time);
    bool IsClockSetBack(time_point now) const;
    bool WaitForAnswer(std::shared_lock<std::shared_mutex>& lock, time_point deadline);
    AnswerFault FaultOfAnswer() const;
    std::span<float, defs::INS_CMD_SIZE> TakeAnswer(AnswerFault fault, time_point& applied_time);
    // Counts and logs.
    void ReportFault(AnswerFault fault, std::uint32_t received_id) const;

    // Constant after construction.
    Config m_config;

    // Worker thread only.
    TimeStats m_time_stats;

    std::shared_ptr<AoTasksInsDataSync> m_ins_input;
    std::shared_ptr<AoTasksFsDataSync> m_fs_input;
    std::shared_ptr<AoTasksGpaoDataSync> m_gpao_input;
    std::shared_ptr<AoM4SetpointAppliedDataSync> m_ao_applied;
    std::shared_ptr<FsRefDataSync> m_fs_ref;
    std::shared_ptr<M4OutputDataSync> m_m4_output;
    std::shared_ptr<M4InputDataSync> m_m4_input;
    std::shared_ptr<GpaoM4SetpointAppliedDataSync> m_gpao_applied;
    std::shared_ptr<CommandCounts> m_counts;

    // Worker thread only.
    ao_tasks::Executor m_executor;
};

}  // namespace vosk::lumo
