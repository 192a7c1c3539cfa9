#pragma once

// A sending socket that can harm one sample on its way: armed with a fault, it holds the sample's packets
// back until it is told to release them, and then sends what is left of them. Unarmed it passes packets
// through. Belongs to the thread that sends. Allocates at construction only.

#include "faults.hpp"

#include <pktwire/udpSocket.hpp>

#include <cstddef>
#include <optional>
#include <vector>

namespace vosk::rig {

class FaultySocket final : public pktwire::TxSocket {
public:
    // For samples of up to `packets` packets of up to `size` bytes.
    explicit FaultySocket(pktwire::TxSocket& inner, std::size_t packets = 8, std::size_t size = 32768);

    // Before the sample is sent.
    void Arm(const Fault& fault);
    // After the sample was sent. Without Arm it does nothing.
    std::error_code Release() noexcept;

    std::error_code Send(std::span<mmsghdr> messages) noexcept override;

private:
    struct Held {
        std::size_t size = 0;
        std::vector<std::byte> bytes;
    };

    void Hold(const msghdr& message) noexcept;
    // Fills m_order with the packets to send, in order, as the fault leaves them.
    void Harm(const Fault& fault) noexcept;

    pktwire::TxSocket& m_inner;
    std::optional<Fault> m_fault;
    std::vector<Held> m_held;
    std::size_t m_count = 0;
    // One more than m_held: a packet may go twice.
    std::vector<std::size_t> m_order;
    std::size_t m_order_count = 0;
    std::vector<iovec> m_pieces;
    std::vector<mmsghdr> m_messages;
};

}  // namespace vosk::rig
