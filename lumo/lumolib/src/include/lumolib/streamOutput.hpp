#pragma once

// What the sending threads share: the base of those that send one QUDEX sample at a time, and the telemetry
// on the time between sends. A stream brings its record and RunCycle.

#include <lumolib/lumoRxTx.hpp>
#include <lumolib/lumoThread.hpp>
#include <lumolib/statistics.hpp>
#include <lumolib/streamState.hpp>

#include <vosk/common/telegraf/telemSender.hpp>

#include <future>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

namespace vosk::lumo {

class QudexOutput : public TxThread, public TxQudex {
public:
    struct Figures {
        std::shared_ptr<StatisticsBuffered> statistics;
        std::shared_ptr<OutputStreamState> state;
    };

    // `num_frames` and `sample_size` are the defaults of the keys; a size of 0 leaves it open.
    QudexOutput(const std::string& name, const oru::configng::PliConfigInstanceNode& node,
                std::uint16_t num_frames, std::size_t sample_size, Figures figures);

protected:
    // From the wait for a record to the report on it. False: the thread was stopped while it waited.
    virtual bool RunCycle() = 0;

    // Before the start handshake, and when the loop is over.
    virtual void OnStart() {}
    virtual void OnEnd() {}

    void Work(std::promise<void>& started) final;

    // The grid point at which a sample of this time leaves.
    time_point SendTime(time_point time) const {
        return CeilToNextInterval(time, m_send_interval, m_send_offset);
    }

    template <class Record>
    std::error_code Send(const Record& record, defs::sample_id_t id, time_point time) {
        m_sender->SetSampleId(id);
        return m_sender->SendSample(gsl::as_bytes(gsl::span{&record, 1}), time, std::nullopt);
    }

    void ReportSent(time_point send_time);

private:
    const Figures m_figures;
};

// The time between the sends of a stream, told to the telemetry collector each 500th sample. Worker thread
// only.
class SendPeriod {
public:
    // "m5" becomes "rtc_performance=m5_output m5_time_since_last_send_max_ms=...". Opens the telemetry queue
    // if a collector is configured.
    explicit SendPeriod(const std::string& stream);

    void RecordSent(defs::sample_id_t id, time_point send_time);

private:
    void Publish();

    const std::string m_field_prefix;
    common::telegraf::SHMTelemSender m_telem;
    StatisticsDuration m_period;
    time_point m_last_send{};
};

}  // namespace vosk::lumo
