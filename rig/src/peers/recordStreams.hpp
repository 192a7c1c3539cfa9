#pragma once

// Both ends of a stream whose samples are one record in one packet, each with a log of all that passed. Each
// belongs to one thread; logs may be read by any.

#include "peers/appendLog.hpp"
#include "peers/arrivalSocket.hpp"
#include "peers/loopback.hpp"

#include <pktwire/qudex.hpp>

namespace vosk::rig {

template <class Record>
struct Sample {
    defs::sample_id_t id = 0;
    time_point stamped;  // in the packet's header
    time_point moved;    // when it was sent, or when it arrived
    Record record{};
};

template <class Record>
class RecordSender {
public:
    RecordSender(std::uint16_t port, std::uint32_t topic, std::size_t capacity)
        : m_socket(LoopbackTo(port), nullptr),
          m_sender(CheckedSamples(topic, 1), m_socket, nullptr),
          m_log(capacity) {}

    // IDs count from 1.
    void Send(const Record& record) {
        Sample<Record>* sample = m_log.Append();
        if (sample == nullptr) return;
        const time_point now = AtomClk::now();
        *sample = {static_cast<defs::sample_id_t>(m_log.WrittenCount()), now, now, record};
        m_log.Publish(m_log.WrittenCount());
        m_sender.SetSampleId(sample->id);
        // The host may not be there any more.
        static_cast<void>(m_sender.SendSample(BytesOf(sample->record), now, {}));
    }

    const AppendLog<Sample<Record>>& Log() const { return m_log; }

private:
    pktwire::UdpTxSocket m_socket;
    pktwire::qudex::Sender m_sender;
    AppendLog<Sample<Record>> m_log;
};

template <class Record>
class RecordReceiver {
public:
    RecordReceiver(std::uint16_t port, std::uint32_t topic, std::size_t capacity)
        : m_socket(port), m_receiver(OneFrameOf(topic), m_socket, nullptr), m_log(capacity) {}

    // Waits for one sample. Null if none came.
    const Sample<Record>* Receive(std::chrono::nanoseconds timeout) {
        const auto [error, handle] = m_receiver.ReceiveSample(WritableBytesOf(m_record), timeout);
        if (error || !handle) return nullptr;
        Sample<Record>* sample = m_log.Append();
        if (sample == nullptr) return nullptr;
        const auto arrival = m_socket.FindLatest(handle->first->SampleId());
        *sample = {handle->first->SampleId(), handle->first->Timestamp(), arrival.value_or(AtomClk::now()),
                   m_record};
        m_log.Publish(m_log.WrittenCount());
        return sample;
    }

    const AppendLog<Sample<Record>>& Log() const { return m_log; }

private:
    static pktwire::qudex::Receiver::Config OneFrameOf(std::uint32_t topic) {
        pktwire::qudex::Receiver::Config config;
        config.topic = topic;
        config.num_frames = 1;
        return config;
    }

    ArrivalSocket m_socket;
    pktwire::qudex::Receiver m_receiver;
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
