#pragma once

// The threads that receive from M4: its answers to setpoints, for AoTasks, and its capacitive sensors, for
// the AO output.

#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/lumoRxTx.hpp>
#include <lumolib/lumoThread.hpp>
#include <lumolib/runtimeMonitor.hpp>

#include <cstdint>
#include <future>
#include <memory>
#include <oru/configng/pliConfig.hpp>
#include <system_error>
#include <vosk/defs/wireRecords.hpp>

namespace vosk::lumo {

// `am:setpoint_applied`, in. AoTasks pairs it with its setpoint by sample ID.
class M4Input : public RxThread, public RxQudex {
public:
    explicit M4Input(const oru::configng::PliConfigInstanceNode& node);

protected:
    void Work(std::promise<void>& started) override;
    // One receive call and what follows from it.
    void RunCycle();

private:
    void OnError(const std::error_code& error, time_point now);
    void OnSample(const pktwire::qudex::Packet& packet, time_point now);

    const std::shared_ptr<M4InputDataSync> m_sync;
    const std::shared_ptr<StatisticsBuffered> m_statistics;
    const std::shared_ptr<InputStreamState> m_stream_state;
    defs::M4SetpointApplied::Payload m_payload{};  // worker thread only
};

// The capacitive sensors of M4, in. This stream reports nothing to the monitor.
class M4FeedbackInput : public RxThread, public RxQudex {
public:
    explicit M4FeedbackInput(const oru::configng::PliConfigInstanceNode& node);

protected:
    void Work(std::promise<void>& started) override;
    // One receive call and what follows from it.
    void RunCycle(defs::M4Feedback::Payload& payload);

private:
    static void OnError(const std::error_code& error);
    void OnSample(const pktwire::qudex::Packet& packet, const defs::M4Feedback::Payload& payload);
    void CheckCounter(std::uint32_t counter);

    const std::shared_ptr<AoM4CapSensActDataSync> m_sync;
    std::uint32_t m_counter = 0;  // worker thread only; counts on by itself from the first sample
};

}  // namespace vosk::lumo
