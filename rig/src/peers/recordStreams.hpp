#pragma once

// Both ends of a stream whose samples are one record in one packet, each with a log of all that passed. An
// end is open while its peer lives. Each belongs to one thread; logs may be read by any.

#include "appendLog.hpp"
#include "peers/arrivalSocket.hpp"
#include "peers/faultySocket.hpp"
#include "peers/loopback.hpp"

#include <pktwire/detail/wire.hpp>
#include <pktwire/qudex.hpp>

#include <cstddef>
#include <optional>

namespace vosk::rig {

template <class Record>
struct Sample {
    defs::sample_id_t id = 0;
    time_point stamped;  // in the packet's header
    time_point moved;    // when it was sent, or when it arrived
    Record record{};
    std::optional<FaultKind> fault{};
};

// Its log is in the order in which samples left, or were to leave where a fault took them.
template <class Record>
class RecordSender {
public:
    RecordSender(const Scenario& scenario, Stream stream, std::uint16_t port, std::uint32_t topic,
                 std::size_t capacity)
        : m_port(port), m_topic(topic), m_faults(scenario, stream), m_log(capacity) {
        Open();
    }

    // IDs count from 1 in each life.
    void Open() {
        m_end.emplace(m_port, m_topic);
        m_last_id = 0;
    }
    // What was held back is never sent.
    void Close() {
        m_end.reset();
        m_held.reset();
    }

    // `time`: after the start of the run, for faults.
    void Send(const Record& record, Seconds time) {
        const time_point now = AtomClk::now();
        Sample<Record> sample{++m_last_id, now, now, record};
        std::optional<Fault> fault = m_faults.Next(time);
        if (fault && IsHeldBack(fault->kind)) {
            if (!m_held) return Hold(sample, *fault);
            fault.reset();
        }
        Leave(sample, fault);
        if (m_held) LetGo();
    }

    // Sends what a delay held back until now. Returns when the next is due.
    time_point SendDelayed(time_point now) {
        if (m_held && m_due <= now) LetGo();
        return m_held ? m_due : time_point::max();
    }

    const AppendLog<Sample<Record>>& Log() const { return m_log; }

private:
    static constexpr defs::sample_id_t WRONG_ID_STEP = 1000;
    static constexpr std::size_t PACKET_SIZE = sizeof(pktwire::wire::QudexHeader) + sizeof(Record);

    struct End {
        End(std::uint16_t port, std::uint32_t topic)
            : socket(LoopbackTo(port), nullptr),
              faulty_socket(socket, 1, PACKET_SIZE),
              sender(CheckedSamples(topic, 1), faulty_socket, nullptr) {}
        pktwire::UdpTxSocket socket;
        FaultySocket faulty_socket;
        pktwire::qudex::Sender sender;
    };

    static bool IsHeldBack(FaultKind kind) { return kind == FaultKind::Delay || kind == FaultKind::Reorder; }

    void Hold(Sample<Record>& sample, const Fault& fault) {
        sample.fault = fault.kind;
        m_held = sample;
        m_due = fault.kind == FaultKind::Delay ? sample.stamped + fault.delay : time_point::max();
    }

    void LetGo() {
        Sample<Record> sample = *m_held;
        m_held.reset();
        sample.moved = AtomClk::now();
        Leave(sample, std::nullopt);
    }

    void Leave(Sample<Record>& sample, std::optional<Fault> fault) {
        Sample<Record>* entry = m_log.Append();
        if (entry == nullptr) return;
        if (fault) {
            sample.fault = fault->kind;
            if (fault->kind == FaultKind::WrongSampleId) sample.id += WRONG_ID_STEP;
            // A packet whose flags don't tell of its checksum is taken as it is.
            if (fault->dice % PACKET_SIZE == offsetof(pktwire::wire::QudexHeader, flags)) ++fault->dice;
            m_end->faulty_socket.Arm(*fault);
        }
        *entry = sample;
        m_log.Publish(m_log.WrittenCount());
        m_end->sender.SetSampleId(sample.id);
        // The host may not be there any more.
        static_cast<void>(m_end->sender.SendSample(BytesOf(entry->record), sample.stamped, {}));
        static_cast<void>(m_end->faulty_socket.Release());
    }

    const std::uint16_t m_port;
    const std::uint32_t m_topic;
    std::optional<End> m_end;
    FaultGenerator m_faults;
    defs::sample_id_t m_last_id = 0;
    std::optional<Sample<Record>> m_held;
    time_point m_due;  // of m_held; the far future if it waits for the next sample
    AppendLog<Sample<Record>> m_log;
};

template <class Record>
class RecordReceiver {
public:
    RecordReceiver(std::uint16_t port, std::uint32_t topic, std::size_t capacity)
        : m_port(port), m_topic(topic), m_log(capacity) {
        Open();
    }

    void Open() { m_end.emplace(m_port, m_topic); }
    void Close() {
        m_stale += m_end->receiver.GetCounters().stale;
        m_end.reset();
    }

    // Waits for one sample. Null if none came.
    const Sample<Record>* Receive(std::chrono::nanoseconds timeout) {
        const auto [error, handle] = m_end->receiver.ReceiveSample(WritableBytesOf(m_record), timeout);
        if (error || !handle) return nullptr;
        Sample<Record>* sample = m_log.Append();
        if (sample == nullptr) return nullptr;
        const auto arrival = m_end->socket.FindLatest(handle->first->SampleId());
        *sample = {handle->first->SampleId(), handle->first->Timestamp(), arrival.value_or(AtomClk::now()),
                   m_record};
        m_log.Publish(m_log.WrittenCount());
        return sample;
    }

    const AppendLog<Sample<Record>>& Log() const { return m_log; }
    // Samples with the ID and the time of one that was there already: the host repeats a command when its
    // flowgraph dies. After the thread has ended.
    std::uint64_t Stale() const { return m_stale + (m_end ? m_end->receiver.GetCounters().stale : 0); }

private:
    struct End {
        End(std::uint16_t port, std::uint32_t topic)
            : socket(port), receiver(OneFrameOf(topic), socket, nullptr) {}
        ArrivalSocket socket;
        pktwire::qudex::Receiver receiver;
    };

    static pktwire::qudex::Receiver::Config OneFrameOf(std::uint32_t topic) {
        pktwire::qudex::Receiver::Config config;
        config.topic = topic;
        config.num_frames = 1;
        return config;
    }

    const std::uint16_t m_port;
    const std::uint32_t m_topic;
    std::optional<End> m_end;
    std::uint64_t m_stale = 0;  // of former lives
    Record m_record{};
    AppendLog<Sample<Record>> m_log;
};

template <class Record>
std::vector<time_point> TimesOf(std::span<const Sample<Record>> samples) {
    std::vector<time_point> times;
    for (const Sample<Record>& sample : samples) times.push_back(sample.moved);
    return times;
}

}  // namespace vosk::rig
