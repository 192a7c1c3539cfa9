#pragma once

// A socket of a sender that keeps what is sent, a string of bytes a datagram, and fails as it is told to.

#include <pktwire/udpSocket.hpp>

#include <cstddef>
#include <span>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace vosk::test {

class RecordingSocket final : public pktwire::TxSocket {
public:
    std::error_code Send(std::span<mmsghdr> messages) noexcept override {
        for (const mmsghdr& message : messages) {
            if (datagrams.size() + 1 >= fail_from) return error;
            std::string& datagram = datagrams.emplace_back();
            for (const iovec& piece : std::span{message.msg_hdr.msg_iov, message.msg_hdr.msg_iovlen})
                datagram.append(static_cast<const char*>(piece.iov_base), piece.iov_len);
        }
        return {};
    }

    std::vector<std::string> datagrams;
    std::size_t fail_from = std::string::npos;  // the datagram, from 1, that fails with `error`
    std::error_code error;
};

}  // namespace vosk::test
