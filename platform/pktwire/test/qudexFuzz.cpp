// A QUDEX receiver against datagrams of any content, order and size: no access outside its buffers, and a
// sample that it delivers has both its ends and consists of its own bytes, each where it belongs.

#include "datagramFeed.hpp"

using namespace pktwire;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    test::FuzzInput input{{data, size}};
    qudex::Receiver::Config config;
    config.topic = 7;
    config.num_frames = static_cast<std::uint16_t>(input.Byte() % 20 + 1);
    config.buf_packets = input.Byte() % 5;
    test::FakeRxSocket socket{input.Byte() % 12U};
    auto memory = test::ReceiverMemory();
    qudex::Receiver receiver{config, socket, &memory};
    test::Bytes small(input.Word() % 700);
    test::Bytes large(small.size() + 1);
    const auto place_of = [](const test::Bytes& datagram) -> std::size_t {
        return test::HeaderAt<wire::QudexHeader>(datagram, 0).place;
    };
    while (!input.IsEmpty()) {
        const std::uint8_t step = input.Byte();
        test::Bytes& buffer = step < 0xF0 ? small : large;
        for (int i = 0; i < step % 4; ++i) {
            auto sender = test::FuzzedSender(input, 1, config.num_frames);
            sender.sample_size = (step & 4U) != 0 ? buffer.size() : 0;
            const std::uint8_t id = input.Byte();
            test::Feed(socket, test::Cut(sender, id, test::Bytes(buffer.size()), {}), input,
                       sizeof(wire::QudexHeader), place_of);
        }
        if (step == 0xEF) receiver.Restart();
        auto [error, handle] = receiver.ReceiveSample(buffer, std::chrono::nanoseconds::zero());
        test::Require(handle.has_value() == !error);
        if (error) continue;
        test::Require(handle->first && (handle->first->NumFrames() == 1) == !handle->second);
        test::RequireContent(buffer, *handle->first, 0);
    }
    return 0;
}
