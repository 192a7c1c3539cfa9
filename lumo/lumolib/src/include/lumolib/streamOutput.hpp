#pragma once

// What the sending threads share: the base of those that send one QUDEX sample at a time, and the telemetry
// on the time between sends. A stream brings its record and RunCycle.

#include <lumolib/lumoRxTx.hpp>
#include <lumolib/lumoThread.hpp>
#include <lumolib/statistics.hpp>
#include <lumolib/streamState.hpp>

#include <vosk/common/telegraf/telemSender.hpp>
#include <vosk/signal_processing/resampling.hpp>

#include <future>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <system_error>

namespace vosk::lumo {

// What an exchange object holds, under its shared lock: read(record, id, time). News that come later set its
// flags again. False: the notification came late, of the record with the ID `taken`.
template <class Sync, class Read>
bool TakeNews(Sync& sync, std::optional<defs::sample_id_t>& taken, const Read& read) {
    const std::shared_lock lock{sync.GetMutex()};
    const defs::sample_id_t id = sync.GetSampleId();
    const bool is_news = sync.IsNewData() || id != taken;
    if (is_news) read(sync.GetDataRef(), id, sync.GetTimestamp());
    taken = id;
    sync.ClearDataReady();
    return is_news;
}

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
    // From the wait for a record to the report on it. A clock that is set back ends a wait: that one sample
    // goes early, unless its stream looks at the clock. False: the thread was stopped while it waited.
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

// Sends what a resampler makes of the records of an exchange object, each sample at the next point of the
// grid.
template <class Sample, class Sync>
class ResampledOutput : public QudexOutput {
protected:
    using ResamplerPtr = std::shared_ptr<signal_processing::Resampler<Sample>>;

    ResampledOutput(const std::string& name, const oru::configng::PliConfigInstanceNode& node,
                    std::size_t sample_size, Figures figures)
        : QudexOutput{name, node, 1, sample_size, std::move(figures)} {}

    // The record of the exchange object as a sample of the resampler.
    virtual void Take(const typename Sync::Record& record, Sample& sample) = 0;
    // Sends a sample whose time has come, and reports it.
    virtual void SendSample(const Sample& sample, time_point send_time) = 0;

    void OnStart() final {
        while (m_resampler->HasSamples()) m_resampler->GetSample();
    }

    // FieldStabilizationOutput has stopped before: a restart sends nothing of this run.
    void OnEnd() final { m_sync->ClearDataReady(); }

    bool RunCycle() final {
        const auto synchronizer = m_sync->GetSynchronizer();
        if (!synchronizer->Wait(m_running)) return false;
        Sample taken{};
        const bool is_news = TakeNews(*m_sync, m_taken_id, [&](const auto& record, auto id, time_point time) {
            taken.timestamp = time;
            taken.sample_id = id;
            Take(record, taken);
        });
        if (!is_news) return true;
        m_resampler->AddSample(taken);
        while (IsRunning() && m_resampler->HasSamples()) {
            const auto sample = m_resampler->GetSample();
            if (!sample) continue;
            const time_point send_time = SendTime(sample->timestamp);
            if (!WaitUntil(send_time)) return false;
            SendSample(*sample, send_time);
        }
        return true;
    }

    std::shared_ptr<Sync> m_sync;  // set by the constructor of the thread, as is the next
    ResamplerPtr m_resampler;

private:
    std::optional<defs::sample_id_t> m_taken_id;  // worker thread only
};

// The figures of a duration, told to the telemetry collector: maximum, mean and standard deviation since the
// last time, in milliseconds. Worker thread only.
class DurationTelemetry {
public:
    // Lines begin with "rtc_performance=<tag> <prefix>". Opens the telemetry queue if a collector is
    // configured.
    DurationTelemetry(const std::string& tag, const std::string& prefix);

    void Update(std::chrono::nanoseconds duration) { m_duration.Update(duration); }
    void PublishFigures();

    template <class Value>
    void Publish(const std::string& field, Value value) {
        m_telem.RecordPoint(m_telem.m_tag_set, m_telem.m_tag, field, value);
    }

private:
    const std::string m_prefix;
    common::telegraf::SHMTelemSender m_telem;
    StatisticsDuration m_duration;
};

// The time between the sends of a stream, told to the telemetry collector each 500th sample. Worker thread
// only.
class SendPeriod {
public:
    // "m5" becomes "rtc_performance=m5_output m5_time_since_last_send_max_ms=...".
    explicit SendPeriod(const std::string& stream);

    void RecordSent(defs::sample_id_t id, time_point send_time);

private:
    DurationTelemetry m_period;
    time_point m_last_send{};
};

}  // namespace vosk::lumo
