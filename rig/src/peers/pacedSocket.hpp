#pragma once

// A sending socket that spreads the packets of a sample over a time, in bursts, as a camera's link does: what
// a receiver's buffer holds is then never a whole frame. Belongs to the thread that sends.

#include "clock.hpp"

#include <pktwire/udpSocket.hpp>

#include <cstddef>

namespace vosk::rig {

class PacedSocket final : public pktwire::TxSocket {
public:
    explicit PacedSocket(pktwire::TxSocket& inner) : m_inner(inner) {}

    // Before a sample of so many packets: the first burst leaves at `start`, the last one `transfer` later.
    void Begin(time_point start, std::chrono::nanoseconds transfer, std::size_t packets);

    std::error_code Send(std::span<mmsghdr> messages) noexcept override;

private:
    static constexpr std::size_t BURST = 16;

    pktwire::TxSocket& m_inner;
    time_point m_start;
    std::chrono::nanoseconds m_transfer{0};
    std::size_t m_packets = 1;
    std::size_t m_sent = 0;
};

}  // namespace vosk::rig
