#pragma once

// Streams of the tests: their datagrams, and a receiver with its socket and buffers. The content of a sample
// follows from its ID, so that a bench checks every sample that it receives.

#include "fakeSockets.hpp"

#include <sstream>
#include <vosk/test/support.hpp>

namespace pktwire::test {

using namespace std::chrono_literals;
using Packets = std::vector<Bytes>;

inline constexpr std::uint32_t TOPIC = 0x01020304;
inline constexpr time_point TIME{std::chrono::nanoseconds{0x1112131415161718}};

// A caller's buffer; the bytes around it must never change.
class GuardedBuffer {
public:
    explicit GuardedBuffer(std::size_t size) : m_memory(size + 2 * GUARD) {}
    ~GuardedBuffer() {
        EXPECT_EQ(Bytes(m_memory.begin(), m_memory.begin() + GUARD), Bytes(GUARD));
        EXPECT_EQ(Bytes(m_memory.end() - GUARD, m_memory.end()), Bytes(GUARD));
    }
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    gsl::span<std::byte> Get() { return gsl::span{m_memory}.subspan(GUARD, m_memory.size() - 2 * GUARD); }
    bool Holds(const Bytes& content) { return std::equal(content.begin(), content.end(), Get().begin()); }

private:
    static constexpr std::ptrdiff_t GUARD = 64;
    Bytes m_memory;
};

inline Bytes ContentOf(unsigned id, std::size_t size, unsigned component = 0) {
    return Counting(size, id * 3 + component * 100);
}

inline qudex::Sender::Config SenderConfig(std::uint16_t num_frames, std::uint16_t component = 0) {
    qudex::Sender::Config config;
    config.topic = TOPIC;
    config.component_id = component;
    config.num_frames = num_frames;
    return config;
}

inline qudex::Receiver::Config ReceiverConfig(std::uint16_t num_frames) {
    return {.topic = TOPIC, .num_frames = num_frames};
}

struct Sample {
    unsigned id;
    std::uint16_t frames = 3;
    std::size_t size = 30;
    time_point time = TIME;
    std::uint16_t component = 0;
};

inline Packets Cut(const Sample& sample) {
    return Cut(SenderConfig(sample.frames, sample.component), sample.id,
               ContentOf(sample.id, sample.size, sample.component), sample.time);
}
inline Bytes With(Bytes datagram, std::size_t offset, unsigned value) {
    datagram[offset] = static_cast<std::byte>(value);
    return datagram;
}

// Samples and frames by the words of a text: ID, then where it differs .frame, @nanoseconds after TIME (or no
// time at all), /component.
inline Packets PacketsOf(const std::string& words) {
    Packets packets;
    std::istringstream in{words};
    for (std::string word; in >> word;) {
        std::istringstream parts{word};
        Sample sample{.id = 0};
        parts >> sample.id;
        std::size_t number = 0;
        for (char mark = 0; parts >> mark;) {
            long value = 0;
            parts >> value;
            if (mark == '.') number = static_cast<std::size_t>(value);
            if (mark == '@') sample.time = parts ? TIME + std::chrono::nanoseconds{value} : time_point{};
            if (mark == '/') sample.component = static_cast<std::uint16_t>(value);
        }
        for (const Bytes& frame : number == 0 ? Cut(sample) : Packets{Cut(sample)[number - 1]})
            packets.push_back(frame);
    }
    return packets;
}

// Datagrams in the order of arrival, and all that comes of them.
struct Arrivals {
    const char* name;
    std::vector<Packets> packets;
    std::string received;  // IDs, and errors as category and value
    std::string counts;
};

// The counts that aren't 0, but for those of a stream without mishaps.
inline std::string Mishaps(const RxCounters& met) {
    std::ostringstream text;
    const std::pair<const char*, std::uint64_t> counts[]{
        {"given_up", met.given_up},     {"refused", met.refused},
        {"missed", met.missed},         {"lost", met.lost},
        {"dropped", met.dropped},       {"short", met.short_ones},
        {"long", met.long_ones},        {"foreign", met.foreign},
        {"malformed", met.malformed},   {"checksum", met.checksum},
        {"duplicate", met.duplicate},   {"stale", met.stale},
        {"unexpected", met.unexpected}, {"reordered", met.reordered}};
    for (const auto& [name, count] : counts) {
        if (count != 0) text << (text.tellp() > 0 ? " " : "") << name << ' ' << count;
    }
    return text.str();
}

// A socket and a receiver that reads from it; Receive() gives an error or sets `id`.
template <class Receiver>
class Bench {
public:
    virtual ~Bench() = default;
    virtual std::error_code Receive() = 0;

    std::string ReceiveAll() {
        std::ostringstream text;
        for (std::error_code error = Receive(); error != std::errc::timed_out; error = Receive()) {
            if (text.tellp() > 0) text << ' ';
            error ? text << error : text << id;
        }
        return text.str();
    }
    void Expect(const Arrivals& arrivals) {
        for (const Packets& packets : arrivals.packets) socket.Put(packets);
        EXPECT_EQ(ReceiveAll(), arrivals.received) << arrivals.name;
        EXPECT_EQ(Mishaps(Counters()), arrivals.counts) << arrivals.name;
    }
    RxCounters Counters() const { return receiver.GetCounters(); }

    FakeRxSocket socket;
    Receiver receiver;
    GuardedBuffer buffer;
    unsigned id = 0;

protected:
    template <class MakeReceiver>
    Bench(MakeReceiver make, std::size_t size) : receiver{make(socket)}, buffer{size} {}
};

struct QudexBench : Bench<qudex::Receiver> {
    explicit QudexBench(std::uint16_t num_frames = 3, std::size_t size = 30)
        : Bench{[=](RxSocket& rx) {
                    return qudex::Receiver{ReceiverConfig(num_frames), rx, nullptr};
                },
                size} {}

    std::error_code Receive() override {
        auto [error, handle] = receiver.ReceiveSample(buffer.Get(), 1h);
        EXPECT_EQ(handle.has_value(), !error);
        if (error) return error;
        id = handle->first->SampleId();
        EXPECT_TRUE(buffer.Holds(ContentOf(id, buffer.Get().size(), handle->first->ComponentId()))) << id;
        return {};
    }
};

}  // namespace pktwire::test
