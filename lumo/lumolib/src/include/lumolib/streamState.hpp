#pragma once

// How many samples a stream has carried, and at what period. RuntimeMonitor makes one for each stream; the
// stream's thread records into it, the host reads it from its own thread.

#include <vosk/common/shmif/dataStreamIdentifier.hpp>
#include <vosk/defs/valueTypes.hpp>

#include <chrono>
#include <cstdint>
#include <mutex>

namespace vosk::lumo {

using defs::time_point;
using vosk::common::shmif::DataStreamIdentifier;

// What a receiver lost since the threads were started.
struct StreamLosses {
    std::uint64_t lost = 0;             // samples that did not come, by the gaps in the IDs, or broke off
    std::uint64_t dropped_packets = 0;  // by the kernel
    std::uint64_t stale_packets = 0;    // of samples that were over, or behind the last one delivered
};

// What the host reads.
struct StreamTopic {
    time_point time{};            // of the reading
    bool valid = false;           // a period is known: true from the second sample on
    std::uint32_t stream_id = 0;  // a DataStreamIdentifier
    bool enabled = true;
    std::uint32_t sample_count = 0;
    std::uint32_t invalid_count = 0;  // 0 for output streams
    float period_max = 0;             // seconds; about -9.2e9 before any period is known
    float period_min = 0;             // seconds; about 9.2e9 before any period is known
    float period = 0;                 // seconds
    float rate = 0;                   // hertz; infinite for a period of 0
    StreamLosses losses{};            // zero for output streams
};

// On cache lines of its own: the next stream is written from another CPU.
class alignas(64) StreamState {
public:
    virtual ~StreamState() = default;
    StreamState(const StreamState&) = delete;
    StreamState& operator=(const StreamState&) = delete;

    virtual StreamTopic GetTopicData() const = 0;
    virtual void Reset() = 0;

protected:
    struct Figures {
        bool period_known = false;
        std::uint32_t sample_count = 0;   // valid, or sent; wraps without notice
        std::uint32_t invalid_count = 0;  // wraps without notice
        std::chrono::nanoseconds period{};
        std::chrono::nanoseconds period_max = std::chrono::nanoseconds::min();
        std::chrono::nanoseconds period_min = std::chrono::nanoseconds::max();
        time_point last_time{};  // of the latest sample, valid or not
        StreamLosses losses{};
    };

    explicit StreamState(DataStreamIdentifier stream_id);

    void RecordSample(std::uint32_t Figures::*counter, time_point time);
    void StoreLosses(const StreamLosses& losses);
    StreamTopic ReadTopic() const;
    void ClearFigures();

private:
    mutable std::mutex m_mutex;
    const DataStreamIdentifier m_stream_id;
    Figures m_figures;  // guarded by m_mutex
};

class InputStreamState final : public StreamState {
public:
    explicit InputStreamState(DataStreamIdentifier stream_id) : StreamState(stream_id) {}

    // Both take part in the period figures: the period is that of arrivals, not of good ones.
    void RecordValidSample(time_point time) { RecordSample(&Figures::sample_count, time); }
    void RecordInvalidSample(time_point time) { RecordSample(&Figures::invalid_count, time); }

    // The receiver's own counts, after each of its calls.
    void SetLosses(const StreamLosses& losses) { StoreLosses(losses); }

    StreamTopic GetTopicData() const override { return ReadTopic(); }
    void Reset() override { ClearFigures(); }
};

class OutputStreamState final : public StreamState {
public:
    explicit OutputStreamState(DataStreamIdentifier stream_id) : StreamState(stream_id) {}

    void RecordSentSample(time_point time) { RecordSample(&Figures::sample_count, time); }

    StreamTopic GetTopicData() const override { return ReadTopic(); }
    void Reset() override { ClearFigures(); }
};

}  // namespace vosk::lumo
