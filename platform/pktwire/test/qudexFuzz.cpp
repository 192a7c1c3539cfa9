// A QUDEX receiver against datagrams of any content, order and size: no access outside its buffers, and a
// sample that it delivers has both its ends and consists of its own frames, each where it belongs.

#include "datagramFeed.hpp"

using namespace pktwire;

namespace {

std::vector<test::Bytes> TrueSample(test::FuzzInput& input, std::uint16_t max_frames, std::size_t size) {
    qudex::Sender::Config config;
    config.topic = 7;
    config.component_id = input.Byte() % 2U;
    config.num_frames = static_cast<std::uint16_t>(input.Byte() % max_frames + 1U);
    const std::uint8_t id = input.Byte();
    return test::Cut(config, id, test::Counting(size, id + input.Byte()), {});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    test::FuzzInput input{{data, size}};
    qudex::Receiver::Config config;
    config.topic = 7;
    config.num_frames = static_cast<std::uint16_t>(input.Byte() % 20 + 1);
    config.buf_packets = input.Byte() % 5;
    test::FakeRxSocket socket{input.Byte() % 12U};
    test::Feed feed{socket};
    test::ReceiverMemory memory;
    qudex::Receiver receiver{config, socket, memory.Get()};
    test::Bytes small(input.Word() % 700);
    test::Bytes large(small.size() + 1);
    while (!input.IsEmpty()) {
        const std::uint8_t step = input.Byte();
        if ((step & 8U) != 0) feed.Put(TrueSample(input, config.num_frames, small.size()), input);
        for (int i = 0; i < step % 8; ++i) feed.Put(input.Datagram(config.topic, 0));
        if (step == 0xEF) receiver.Restart();
        test::Bytes& buffer = step < 0xF0 ? small : large;
        auto [error, handle] = receiver.ReceiveSample(buffer, std::chrono::nanoseconds::zero());
        test::Require(handle.has_value() == !error);
        test::Require(error || (handle->first && (handle->first->NumFrames() == 1) == !handle->second));
        if (error) continue;
        const auto place_of = [](const test::Bytes& datagram) -> std::size_t {
            return test::HeaderAt<wire::QudexHeader>(datagram, 0).place;
        };
        test::Require(feed.Holds(buffer, *handle->first, 1, handle->first->NumFrames(),
                                 sizeof(wire::QudexHeader), place_of));
    }
    return 0;
}
