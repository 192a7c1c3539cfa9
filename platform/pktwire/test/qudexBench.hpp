#pragma once

// A QUDEX stream of the tests: its datagrams, and a receiver of it.

#include "guardedBuffer.hpp"

#include <pktwire/qudex.hpp>

namespace pktwire::test {

using namespace std::chrono_literals;

inline constexpr std::uint32_t TOPIC = 0x01020304;
inline constexpr time_point TIME{std::chrono::nanoseconds{0x1112131415161718}};

inline qudex::Sender::Config SenderConfig(std::uint16_t num_frames) {
    qudex::Sender::Config config;
    config.topic = TOPIC;
    config.num_frames = num_frames;
    return config;
}

inline qudex::Receiver::Config ReceiverConfig(std::uint16_t num_frames) {
    qudex::Receiver::Config config;
    config.topic = TOPIC;
    config.num_frames = num_frames;
    return config;
}

inline std::vector<Bytes> Cut(const Bytes& sample, std::uint16_t num_frames, unsigned id,
                              time_point time = TIME, std::uint16_t component = 0) {
    auto config = SenderConfig(num_frames);
    config.component_id = component;
    return Cut(config, id, sample, time);
}

struct Bench {
    explicit Bench(std::uint16_t num_frames, std::size_t sample_size)
        : receiver{ReceiverConfig(num_frames), socket, nullptr}, buffer{sample_size} {}

    std::error_code Receive() {
        auto [error, handle] = receiver.ReceiveSample(buffer.Get(), 1h);
        EXPECT_EQ(handle.has_value(), !error);
        id = handle ? handle->first->SampleId() : 0;
        return error;
    }
    // Receives until time-out: the IDs of the samples, 0 for each error.
    std::vector<unsigned> ReceiveAll() {
        std::vector<unsigned> ids;
        for (std::error_code error = Receive(); error != std::errc::timed_out; error = Receive())
            ids.push_back(id);
        return ids;
    }
    Bytes Content() { return buffer.Content(); }
    RxCounters Counters() const { return receiver.GetCounters(); }

    FakeRxSocket socket;
    qudex::Receiver receiver;
    GuardedBuffer buffer;
    unsigned id = 0;
};

}  // namespace pktwire::test
