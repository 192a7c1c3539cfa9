#pragma once

// A receiving socket that remembers when each packet reached it, by the kernel's clock, and in which order.
// So a peer can tell when a sample was sent without its own wake-up in the figure. Belongs to one thread.

#include "clock.hpp"

#include <pktwire/udpSocket.hpp>
#include <vosk/defs/sizes.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace vosk::rig {

class ArrivalSocket final : public pktwire::RxSocket {
public:
    // On the loopback interface. Throws std::system_error.
    explicit ArrivalSocket(std::uint16_t port);

    std::size_t BatchSize() const noexcept override { return BATCH; }
    std::size_t ReceiveBatch(std::span<mmsghdr> messages, std::error_code& error) noexcept override;
    std::error_code WaitReadable(std::chrono::nanoseconds timeout) noexcept override;

    struct Arrival {
        time_point first;       // of the sample's first packet to arrive
        bool in_order = false;  // its frames came as 1, 2, 3, ... without a repetition
    };
    // Of one of the latest few samples.
    std::optional<Arrival> Find(defs::sample_id_t sample_id) const noexcept;
    // Of the latest packet with this ID, for streams of one packet whose IDs may come again.
    std::optional<time_point> FindLatest(defs::sample_id_t sample_id) const noexcept;

private:
    static constexpr std::size_t BATCH = 16;
    static constexpr std::size_t REMEMBERED = 64;

    struct Packet {
        defs::sample_id_t sample_id = 0;
        std::uint16_t frame = 0;
        time_point arrived;
    };

    void Remember(const msghdr& message) noexcept;

    pktwire::detail::FileDescriptor m_fd;
    std::chrono::nanoseconds m_tai_offset;  // TAI less the kernel's clock for time stamps
    std::array<Packet, REMEMBERED> m_packets{};
    std::size_t m_next = 0;  // counts up; the place in m_packets is its remainder
    struct alignas(cmsghdr) Control {
        std::array<std::byte, CMSG_SPACE(sizeof(timespec))> bytes;
    };
    std::array<Control, BATCH> m_control{};
};

}  // namespace vosk::rig
