#include "peers/pacedSocket.hpp"

#include <algorithm>

namespace vosk::rig {

void PacedSocket::Begin(time_point start, std::chrono::nanoseconds transfer, std::size_t packets) {
    m_start = start;
    m_transfer = transfer;
    m_packets = std::max<std::size_t>(packets, 1);
    m_sent = 0;
}

std::error_code PacedSocket::Send(std::span<mmsghdr> messages) noexcept {
    while (!messages.empty()) {
        const auto burst = messages.first(std::min(BURST, messages.size()));
        SleepUntil(m_start +
                   m_transfer * static_cast<std::int64_t>(m_sent) / static_cast<std::int64_t>(m_packets));
        if (const std::error_code error = m_inner.Send(burst)) return error;
        m_sent += burst.size();
        messages = messages.subspan(burst.size());
    }
    return {};
}

}  // namespace vosk::rig
