#include "peers/faultySocket.hpp"

#include <algorithm>
#include <utility>

namespace vosk::rig {

FaultySocket::FaultySocket(pktwire::TxSocket& inner, std::size_t packets, std::size_t size)
    : m_inner(inner), m_held(packets), m_order(packets + 1), m_pieces(packets + 1), m_messages(packets + 1) {
    for (Held& held : m_held) held.bytes.resize(size);
}

void FaultySocket::Arm(const Fault& fault) {
    m_fault = fault;
    m_count = 0;
}

std::error_code FaultySocket::Send(std::span<mmsghdr> messages) noexcept {
    if (!m_fault) return m_inner.Send(messages);
    for (mmsghdr& message : messages) {
        Hold(message.msg_hdr);
        message.msg_len = 0;
    }
    return {};
}

void FaultySocket::Hold(const msghdr& message) noexcept {
    if (m_count == m_held.size()) return;
    Held& held = m_held[m_count++];
    held.size = 0;
    for (std::size_t i = 0; i < message.msg_iovlen; ++i) {
        const auto* from = static_cast<const std::byte*>(message.msg_iov[i].iov_base);
        const std::size_t size = std::min(message.msg_iov[i].iov_len, held.bytes.size() - held.size);
        std::copy_n(from, size, held.bytes.begin() + static_cast<std::ptrdiff_t>(held.size));
        held.size += size;
    }
}

void FaultySocket::Harm(const Fault& fault) noexcept {
    m_order_count = m_count;
    for (std::size_t i = 0; i < m_count; ++i) m_order[i] = i;
    const std::size_t victim = fault.dice % m_count;
    const std::uint64_t dice = fault.dice / m_count;
    Held& held = m_held[victim];
    switch (fault.kind) {
        case FaultKind::Drop:
            std::move(m_order.begin() + static_cast<std::ptrdiff_t>(victim) + 1,
                      m_order.begin() + static_cast<std::ptrdiff_t>(m_count),
                      m_order.begin() + static_cast<std::ptrdiff_t>(victim));
            --m_order_count;
            break;
        case FaultKind::Duplicate:
            m_order[m_order_count++] = victim;
            break;
        case FaultKind::Reorder:
            if (m_count > 1) std::swap(m_order[victim], m_order[(victim + 1) % m_count]);
            break;
        case FaultKind::Corrupt:
            // Any byte but 0 changes it.
            held.bytes[dice % held.size] ^= static_cast<std::byte>(1 + (dice / held.size) % 255);
            break;
        case FaultKind::Truncate:
            held.size = dice % held.size;
            break;
        case FaultKind::Delay:
        case FaultKind::WrongSampleId:
        case FaultKind::BadStatus:
        case FaultKind::WrongDataType:
        case FaultKind::WrongWindow:
            break;  // up to who sends
    }
}

std::error_code FaultySocket::Release() noexcept {
    if (!m_fault) return {};
    const Fault fault = *m_fault;
    m_fault.reset();
    if (m_count == 0) return {};
    Harm(fault);
    for (std::size_t i = 0; i < m_order_count; ++i) {
        Held& held = m_held[m_order[i]];
        m_pieces[i] = {held.bytes.data(), held.size};
        m_messages[i] = {};
        m_messages[i].msg_hdr.msg_iov = &m_pieces[i];
        m_messages[i].msg_hdr.msg_iovlen = 1;
    }
    return m_inner.Send(std::span(m_messages).first(m_order_count));
}

}  // namespace vosk::rig
