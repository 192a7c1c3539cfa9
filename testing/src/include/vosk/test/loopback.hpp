#pragma once

// Both ends of a UDP stream on this machine.

#include <pktwire/udpSocket.hpp>

#include <cstdint>

namespace vosk::test {

// Port 0 takes one that is free.
inline pktwire::UdpRxSocket::Config Listening(std::uint16_t port = 0) {
    pktwire::UdpRxSocket::Config config{};
    config.ip.listen = pktwire::Ipv4{"127.0.0.1"};
    config.iface_name = "lo";
    config.udp.listen = port;
    return config;
}

inline pktwire::UdpTxSocket::Config SendingTo(std::uint16_t port) {
    pktwire::UdpTxSocket::Config config{};
    config.ip.dst = pktwire::Ipv4{"127.0.0.1"};
    config.udp.dst = port;
    return config;
}

}  // namespace vosk::test
