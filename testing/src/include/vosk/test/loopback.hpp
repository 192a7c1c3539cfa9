#pragma once

// Both ends of a UDP stream on this machine.

#include <pktwire/udpSocket.hpp>

#include <vosk/test/support.hpp>

#include <cstdint>
#include <string>

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

// Any number of places to listen at that no other test has: of four ports, each on addresses of its own.
inline std::string LoopbackOf(int number) {
    return "127.0.0." + std::to_string(1 + number / 4);
}
inline std::uint16_t PortOf(int number) {
    return UniquePort(number % 4);
}
inline pktwire::UdpTxSocket::Config SendingToNumber(int number) {
    auto config = SendingTo(PortOf(number));
    config.ip.dst = pktwire::Ipv4{LoopbackOf(number)};
    return config;
}

}  // namespace vosk::test
