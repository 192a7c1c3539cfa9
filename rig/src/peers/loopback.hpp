#pragma once

// What the peers' ends of the network have in common: the loopback interface, and QUDEX samples that carry
// their checksums, so that the host can tell a damaged one.

#include <pktwire/qudex.hpp>

#include <gsl/span>

#include <cstddef>
#include <cstdint>

namespace vosk::rig {

inline pktwire::UdpTxSocket::Config LoopbackTo(std::uint16_t port) {
    pktwire::UdpTxSocket::Config config;
    config.ip.dst = pktwire::Ipv4("127.0.0.1");
    config.udp.dst = port;
    config.txbuf_size = 1U << 20U;
    return config;
}

inline pktwire::qudex::Sender::Config CheckedSamples(std::uint32_t topic, std::uint16_t num_frames) {
    pktwire::qudex::Sender::Config config;
    config.topic = topic;
    config.num_frames = num_frames;
    config.checksum_enable = true;
    return config;
}

template <class Record>
gsl::span<const std::byte> BytesOf(const Record& record) {
    return {reinterpret_cast<const std::byte*>(&record), sizeof record};
}

template <class Record>
gsl::span<std::byte> WritableBytesOf(Record& record) {
    return {reinterpret_cast<std::byte*>(&record), sizeof record};
}

}  // namespace vosk::rig
