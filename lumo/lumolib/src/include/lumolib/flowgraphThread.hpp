#pragma once

// The base of the threads that share a record with a flowgraph over an RT topic. Each 500th record, of the
// GPAO output each 50th, also goes to a telemetry queue, and each one to the diagnostic streams unless they
// are muted. Nothing allocates in the loop.

#include <lumolib/lumoThread.hpp>
#include <lumolib/utilities.hpp>

#include <vosk/common/logger.hpp>
#include <vosk/common/shmif/shmBoost.hpp>
#include <vosk/common/shmif/shmIf.hpp>
#include <vosk/common/shmif/shmRt.hpp>
#include <vosk/defs/shmRecords.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

namespace vosk::lumo {

// Counts each input that had no news, in the counter of its place; gives how many had none.
template <std::size_t N>
std::uint32_t CountErrors(const std::array<bool, N>& has_news, std::array<std::uint32_t, N>& errors) {
    for (std::size_t i = 0; i < N; ++i) errors[i] += has_news[i] ? 0U : 1U;
    return static_cast<std::uint32_t>(std::ranges::count(has_news, false));
}

// End is ShmWriterRT or ShmReaderRT.
template <class Record, class End>
class FlowgraphThread : public Thread {
public:
    // Keys: `shm_topic` (required), `diagnostic_mute`, `diagnostic_streams`. Throws std::runtime_error if a
    // topic can't be opened or is of another kind; notes it under a review. Telemetry gets the records whose
    // ID is a multiple of `telemetry_step`.
    FlowgraphThread(const std::string& name, const oru::configng::PliConfigInstanceNode& node,
                    const std::string& telemetry_topic, defs::sample_id_t telemetry_step)
        : Thread{name, node, ""},
          m_telemetry_step{telemetry_step},
          m_muted{GetParamOr(node, "diagnostic_mute", false)} {
        const auto topic = GetParam<std::string>(node, "shm_topic");
        oru::configng::Attempt(node["shm_topic"], [&] {
            common::shmif::ShmIf::RegisterTopic(topic, common::shmif::ShmType::SHM_RT, sizeof(Record));
            m_channel.emplace(m_shm, topic);
            if (!m_channel->IsValid())
                common::LogAndThrow("ERR: Shared-memory topic " + topic + " can't be used");
            m_telemetry.emplace(m_shm, telemetry_topic);
        });
        pktwire::qudex::Sender::Config qudex{};
        qudex.num_frames = 1;
        qudex.sample_size = sizeof(Record);
        oru::configng::Attempt(node, [&] { SetupDiagnosticStreams(node, {}, qudex); });
    }

protected:
    // Before a run, of a reader: what came before, and what the former run repeated, goes out no more.
    void DropOldRecords() {
        while (m_channel->TimedReceive(&m_record, std::chrono::nanoseconds::zero())) {
        }
        m_record = {};
    }

    // Of a reader: the next record, if it comes within `limit`. A thread that spins polls the slot: it pays
    // no wake-up and can miss none.
    bool ReceiveWithin(std::chrono::nanoseconds limit, Record& record) {
        if (!m_busy) return m_channel->TimedReceive(&record, limit);
        const auto end = std::chrono::steady_clock::now() + limit;
        while (IsRunning()) {
            if (m_channel->TimedReceive(&record, std::chrono::nanoseconds::zero())) return true;
            if (std::chrono::steady_clock::now() >= end) return false;
        }
        return false;
    }

    // Whether the present record is one for telemetry.
    bool IsSampled() const { return m_record.sample_id % m_telemetry_step == 0; }

    // A full queue drops the copy, and one that refuses it costs a line of the log.
    void SendTelemetry() try {
        const common::shmif::TelemetryMessage<Record> message{m_record};
        m_telemetry->TrySend(&message);
    } catch (const std::runtime_error& error) {
        common::LogWarn("{}: telemetry of sample {} is lost: {}", m_name, m_record.sample_id, error.what());
    }

    void SendDiagnostics() {
        if (m_muted) return;
        SendDiagnosticSample(m_record.sample_id, m_record.timestamp, m_record, m_record.timestamp);
    }

    // Worker thread only.
    Record m_record{};
    std::optional<End> m_channel;  // empty under a review that found a fault, as is the next

private:
    const defs::sample_id_t m_telemetry_step;
    const bool m_muted;
    common::shmif::ShmIf m_shm;
    std::optional<common::shmif::ShmWriterBoost> m_telemetry;
};

}  // namespace vosk::lumo
