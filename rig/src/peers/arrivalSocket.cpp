#include "peers/arrivalSocket.hpp"

#include <netinet/in.h>
#include <poll.h>
#include <pktwire/detail/wire.hpp>

#include <cstring>
#include <ctime>
#include <system_error>

namespace vosk::rig {
namespace {

void Check(int result, const char* what) {
    if (result != 0) throw std::system_error(errno, std::generic_category(), what);
}

std::chrono::nanoseconds Nanoseconds(const timespec& time) {
    return std::chrono::seconds{time.tv_sec} + std::chrono::nanoseconds{time.tv_nsec};
}

// Whole seconds: TAI and the clock of time stamps tick alike.
std::chrono::nanoseconds TaiOffset() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return std::chrono::round<std::chrono::seconds>(AtomClk::now().time_since_epoch() - Nanoseconds(now));
}

}  // namespace

ArrivalSocket::ArrivalSocket(std::uint16_t port)
    : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)), m_tai_offset(TaiOffset()) {
    const int on = 1;
    const int buffer = 4 << 20;
    Check(setsockopt(m_fd.Get(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on), "SO_TIMESTAMPNS");
    if (setsockopt(m_fd.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof buffer) != 0)
        Check(setsockopt(m_fd.Get(), SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer), "SO_RCVBUF");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Check(bind(m_fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
}

std::size_t ArrivalSocket::ReceiveBatch(std::span<mmsghdr> messages, std::error_code& error) noexcept {
    messages = messages.first(std::min(messages.size(), BATCH));
    for (std::size_t i = 0; i < messages.size(); ++i) {
        messages[i].msg_hdr.msg_control = m_control[i].bytes.data();
        messages[i].msg_hdr.msg_controllen = m_control[i].bytes.size();
    }
    const int count =
        recvmmsg(m_fd.Get(), messages.data(), static_cast<unsigned>(messages.size()), MSG_DONTWAIT, nullptr);
    if (count < 0) {
        error.assign(errno, std::generic_category());
    } else {
        error.clear();
        for (const mmsghdr& message : messages.first(static_cast<std::size_t>(count)))
            Remember(message.msg_hdr);
    }
    for (mmsghdr& message : messages) {
        message.msg_hdr.msg_control = nullptr;
        message.msg_hdr.msg_controllen = 0;
    }
    return count < 0 ? 0 : static_cast<std::size_t>(count);
}

std::error_code ArrivalSocket::WaitReadable(std::chrono::nanoseconds timeout) noexcept {
    pollfd wait{m_fd.Get(), POLLIN, 0};
    const auto seconds = std::chrono::floor<std::chrono::seconds>(timeout);
    const timespec limit{seconds.count(), (timeout - seconds).count()};
    const int result = ppoll(&wait, 1, &limit, nullptr);
    if (result > 0) return {};
    if (result == 0 || errno == EINTR) return std::make_error_code(std::errc::timed_out);
    return {errno, std::generic_category()};
}

void ArrivalSocket::Remember(const msghdr& message) noexcept {
    pktwire::wire::QudexHeader header;
    if (message.msg_iovlen == 0 || message.msg_iov[0].iov_len < sizeof header) return;
    std::memcpy(&header, message.msg_iov[0].iov_base, sizeof header);
    Packet& packet = m_packets[m_next++ % REMEMBERED];
    packet = {header.sample_id, header.frame_number, AtomClk::now()};
    msghdr readable = message;  // the macros of cmsg(3) want it without const
    for (cmsghdr* control = CMSG_FIRSTHDR(&readable); control != nullptr;
         control = CMSG_NXTHDR(&readable, control)) {
        if (control->cmsg_level != SOL_SOCKET || control->cmsg_type != SCM_TIMESTAMPNS) continue;
        timespec stamp{};
        std::memcpy(&stamp, CMSG_DATA(control), sizeof stamp);
        packet.arrived = time_point{Nanoseconds(stamp) + m_tai_offset};
    }
}

std::optional<ArrivalSocket::Arrival> ArrivalSocket::Find(defs::sample_id_t sample_id) const noexcept {
    const std::size_t known = std::min(m_next, REMEMBERED);
    std::optional<Arrival> arrival;
    std::uint16_t frame = 0;
    for (std::size_t i = m_next - known; i < m_next; ++i) {
        const Packet& packet = m_packets[i % REMEMBERED];
        if (packet.sample_id != sample_id) continue;
        if (!arrival) arrival = {packet.arrived, true};
        arrival->in_order = arrival->in_order && packet.frame == ++frame;
    }
    return arrival;
}

std::optional<time_point> ArrivalSocket::FindLatest(defs::sample_id_t sample_id) const noexcept {
    const std::size_t known = std::min(m_next, REMEMBERED);
    for (std::size_t i = m_next; i > m_next - known; --i)
        if (m_packets[(i - 1) % REMEMBERED].sample_id == sample_id)
            return m_packets[(i - 1) % REMEMBERED].arrived;
    return std::nullopt;
}

}  // namespace vosk::rig
