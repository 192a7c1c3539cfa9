#pragma once

// Sockets without a kernel: a receiver is fed with datagrams from a list, a sender fills one.

#include <pktwire/lspx.hpp>

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace pktwire::test {

using Bytes = std::vector<std::byte>;

inline Bytes FromHex(std::string text) {
    std::erase(text, ' ');
    Bytes bytes;
    for (std::size_t i = 0; i < text.size(); i += 2)
        bytes.push_back(static_cast<std::byte>(std::stoi(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

// Those from `place` on of bytes that count from `start`.
inline Bytes Counting(std::size_t size, unsigned start = 0, std::size_t place = 0) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::byte>(start + (place + i) * 7 + (place + i) / 251);
    return bytes;
}

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// Gives its datagrams in order, as the kernel scatters them, and would block when none is left; a wait for
// more ends at once, as if its time were over.
class FakeRxSocket final : public RxSocket {
public:
    explicit FakeRxSocket(std::size_t batch = 10) : m_batch{batch} {}

    std::deque<Bytes> datagrams;

    void Put(const std::vector<Bytes>& more) { datagrams.insert(datagrams.end(), more.begin(), more.end()); }

    std::size_t BatchSize() const noexcept override { return m_batch; }
    std::size_t ReceiveBatch(std::span<mmsghdr> messages, std::error_code& error) noexcept override {
        const std::size_t count = std::min({messages.size(), m_batch, datagrams.size()});
        error = count == 0 ? std::make_error_code(std::errc::operation_would_block) : std::error_code{};
        for (mmsghdr& message : messages.first(count)) {
            const Bytes& datagram = datagrams.front();
            std::size_t done = 0;
            for (const iovec& iov : std::span{message.msg_hdr.msg_iov, message.msg_hdr.msg_iovlen}) {
                const std::size_t part = std::min(iov.iov_len, datagram.size() - done);
                if (part != 0) std::memcpy(iov.iov_base, datagram.data() + done, part);
                done += part;
            }
            message.msg_len = static_cast<unsigned>(done);
            message.msg_hdr.msg_flags = done < datagram.size() ? MSG_TRUNC : 0;
            datagrams.pop_front();
        }
        return count;
    }
    std::error_code WaitReadable(std::chrono::nanoseconds /*timeout*/) noexcept override {
        return std::make_error_code(std::errc::timed_out);
    }

private:
    std::size_t m_batch;
};

// Keeps what was sent; fails as it is told to.
class FakeTxSocket final : public TxSocket {
public:
    std::vector<Bytes> datagrams;
    std::error_code error;

    std::error_code Send(std::span<mmsghdr> messages) noexcept override {
        for (const mmsghdr& message : messages) {
            Bytes& datagram = datagrams.emplace_back();
            for (const iovec& iov : std::span{message.msg_hdr.msg_iov, message.msg_hdr.msg_iovlen}) {
                const auto* bytes = static_cast<const std::byte*>(iov.iov_base);
                datagram.insert(datagram.end(), bytes, bytes + iov.iov_len);
            }
        }
        return error;
    }

    std::vector<Bytes> Take() { return std::exchange(datagrams, {}); }
};

// The datagrams of one sample.
inline std::vector<Bytes> Cut(const qudex::Sender::Config& config, unsigned id, const Bytes& sample,
                              std::optional<time_point> time) {
    FakeTxSocket socket;
    qudex::Sender sender{config, socket, nullptr};
    sender.SetSampleId(id);
    sender.SendSample(sample, time, {});
    return socket.Take();
}

struct Parts {
    Bytes leader_info;
    Bytes payload;
    Bytes trailer_info;
};

inline std::vector<Bytes> Cut(const qudex::Sender::Config& qudex_config, const lspx::Sender::Config& config,
                              unsigned id, const Parts& parts, std::optional<time_point> time,
                              lspx::Status status = lspx::Status::good) {
    FakeTxSocket socket;
    qudex::Sender qudex_sender{qudex_config, socket, nullptr};
    lspx::Sender sender{config, qudex_sender};
    sender.SetSampleId(id);
    sender.SendSample(parts.leader_info, parts.payload, parts.trailer_info, time, {}, status);
    return socket.Take();
}

}  // namespace pktwire::test
