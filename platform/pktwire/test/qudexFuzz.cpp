// A QUDEX receiver against datagrams of any content, order and size: no access outside its buffers, and a
// sample that it delivers has both its ends.

#include "datagramFeed.hpp"

#include <pktwire/qudex.hpp>

using namespace pktwire;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    test::FuzzInput input{{data, size}};
    qudex::Receiver::Config config;
    config.topic = 7;
    config.num_frames = static_cast<std::uint16_t>(input.Byte() % 20 + 1);
    config.buf_packets = input.Byte() % 5;
    test::FakeRxSocket socket{input.Byte() % 12U};
    test::ReceiverMemory memory;
    qudex::Receiver receiver{config, socket, memory.Get()};
    test::Bytes small(input.Word() % 700);
    test::Bytes large(small.size() + 1);
    while (!input.IsEmpty()) {
        const std::uint8_t step = input.Byte();
        for (int i = 0; i < step % 8; ++i) socket.datagrams.push_back(input.Datagram(config.topic, 0));
        auto [error, handle] =
            receiver.ReceiveSample(step < 0xF0 ? small : large, std::chrono::nanoseconds::zero());
        test::Require(handle.has_value() == !error);
        test::Require(error || (handle->first && (handle->first->NumFrames() == 1) == !handle->second));
    }
    return 0;
}
