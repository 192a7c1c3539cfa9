#pragma once

// A record that a thread shares with a flowgraph over an RT topic, with the sampled copies of it that go to a
// telemetry queue. Made at set-up, used by the worker alone; nothing allocates in the loop.

#include <lumolib/utilities.hpp>

#include <vosk/common/logger.hpp>
#include <vosk/common/shmif/shmBoost.hpp>
#include <vosk/common/shmif/shmIf.hpp>
#include <vosk/common/shmif/shmRt.hpp>
#include <vosk/defs/shmRecords.hpp>

#include <optional>
#include <stdexcept>
#include <string>

namespace vosk::lumo {

// End is ShmWriterRT or ShmReaderRT.
template <class Record, class End>
class SampledTopic {
public:
    // Keys: `shm_topic` (required), `diagnostic_mute`. Throws std::runtime_error if a topic can't be opened
    // or is of another kind; notes it under a review.
    SampledTopic(const oru::configng::PliConfigInstanceNode& node, const std::string& telemetry_topic,
                 defs::sample_id_t telemetry_step)
        : m_telemetry_step{telemetry_step}, m_muted{GetParamOr(node, "diagnostic_mute", false)} {
        const auto topic = GetParam<std::string>(node, "shm_topic");
        oru::configng::Attempt(node["shm_topic"], [&] {
            common::shmif::ShmIf::RegisterTopic(topic, common::shmif::ShmType::SHM_RT, sizeof(Record));
            m_end.emplace(m_shm, topic);
            if (!m_end->IsValid())
                common::LogAndThrow("ERR: Shared-memory topic " + topic + " can't be used");
            m_telemetry.emplace(m_shm, telemetry_topic);
        });
    }

    End& Channel() { return *m_end; }
    bool IsDiagnosticMuted() const { return m_muted; }

    // Whether telemetry gets the present record.
    bool IsSampled() const { return record.sample_id % m_telemetry_step == 0; }

    // A full queue drops the copy, and one that refuses it costs a line of the log.
    void PublishTelemetry() try {
        const common::shmif::TelemetryMessage<Record> message{record};
        m_telemetry->TrySend(&message);
    } catch (const std::runtime_error& error) {
        common::LogWarn("Telemetry of sample {} is lost: {}", record.sample_id, error.what());
    }

    Record record{};  // zero until a cycle fills it

private:
    const defs::sample_id_t m_telemetry_step;
    const bool m_muted;
    common::shmif::ShmIf m_shm;
    std::optional<End> m_end;                                  // empty under a review that found a fault
    std::optional<common::shmif::ShmWriterBoost> m_telemetry;  // the same
};

}  // namespace vosk::lumo
