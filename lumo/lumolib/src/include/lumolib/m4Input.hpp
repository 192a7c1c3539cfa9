#pragma once

// The threads that receive from M4: its answers to setpoints, for AoTasks, and its capacitive sensors, for
// the AO output.

#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/streamInput.hpp>

#include <vosk/defs/wireRecords.hpp>

#include <cstdint>
#include <memory>

namespace vosk::lumo {

// `am:setpoint_applied`, in. AoTasks pairs it with its setpoint by sample ID.
class M4Input : public QudexInput<defs::M4SetpointApplied::Payload> {
public:
    explicit M4Input(const oru::configng::PliConfigInstanceNode& node);

protected:
    void OnSample(const defs::M4SetpointApplied::Payload& payload, const pktwire::qudex::Packet& first,
                  time_point now) override;

private:
    const std::shared_ptr<M4InputDataSync> m_sync;
    const std::shared_ptr<StatisticsBuffered> m_statistics;
};

// The capacitive sensors of M4, in. This stream reports nothing to the monitor.
class M4FeedbackInput : public QudexInput<defs::M4Feedback::Payload> {
public:
    explicit M4FeedbackInput(const oru::configng::PliConfigInstanceNode& node);

protected:
    void OnStart() override { m_counter = 0; }
    void OnSample(const defs::M4Feedback::Payload& payload, const pktwire::qudex::Packet& first,
                  time_point now) override;

private:
    void CheckCounter(std::uint32_t counter);

    const std::shared_ptr<AoM4CapSensActDataSync> m_sync;
    std::uint32_t m_counter = 0;  // worker thread only; counts on by itself from the first sample
};

}  // namespace vosk::lumo
