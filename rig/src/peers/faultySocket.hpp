#pragma once

// A sending socket that can harm one sample on its way: armed with a fault, it holds the sample's packets
// back until it is told to release them, and then sends what is left of them. Unarmed it passes packets
// through. Belongs to the thread that sends. Allocates at construction only.

#include "peers/faults.hpp"

#include <pktwire/udpSocket.hpp>

#include <array>
#include <cstddef>
#include <optional>
#include <vector>

namespace vosk::rig {

class FaultySocket final : public pktwire::TxSocket {
public:
    explicit FaultySocket(pktwire::TxSocket& inner);

    // Before the sample is sent.
    void Arm(const Fault& fault);
    // After the sample was sent. Without Arm it does nothing.
    std::error_code Release() noexcept;

    std::error_code Send(std::span<mmsghdr> messages) noexcept override;

private:
    static constexpr std::size_t MAX_PACKETS = 8;
    static constexpr std::size_t MAX_SIZE = 32768;

    struct Held {
        std::size_t size = 0;
        std::vector<std::byte> bytes;
    };

    void Hold(const msghdr& message) noexcept;
    // Fills m_order with the packets to send, in order, as the fault leaves them.
    void Harm(const Fault& fault) noexcept;

    pktwire::TxSocket& m_inner;
    std::optional<Fault> m_fault;
    std::array<Held, MAX_PACKETS> m_held;
    std::size_t m_count = 0;
    std::array<std::size_t, MAX_PACKETS + 1> m_order{};
    std::size_t m_order_count = 0;
};

}  // namespace vosk::rig
