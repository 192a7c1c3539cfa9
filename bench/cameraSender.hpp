#pragma once

// A camera on the loopback interface, which sends frames as they stand in memory.

#include <pktwire/lspx.hpp>

#include <array>
#include <chrono>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace vosk::bench {

struct Camera {
    std::string name;
    std::uint16_t num_frames;
    std::uint32_t pixels;
    std::uint8_t endianness = pktwire::lspx::BIG_ENDIAN_UNITS;
};

// Holds the last packet of each frame back, until the receiver sleeps.
class HoldingSocket final : public pktwire::TxSocket {
public:
    HoldingSocket(const pktwire::UdpTxSocket::Config& config, std::uint16_t num_frames)
        : m_socket{config, nullptr}, m_num_frames{num_frames} {}
    std::error_code Send(std::span<mmsghdr> messages) noexcept override {
        m_sent += messages.size();
        if (m_pause.count() == 0 || m_sent % m_num_frames != 0) return m_socket.Send(messages);
        const std::error_code error = m_socket.Send(messages.first(messages.size() - 1));
        std::this_thread::sleep_for(m_pause);
        m_last_packet_time = std::chrono::steady_clock::now();
        return error ? error : m_socket.Send(messages.last(1));
    }
    // 0 holds nothing back.
    void SetPause(std::chrono::microseconds pause) noexcept { m_pause = pause; }
    std::chrono::steady_clock::time_point LastPacketTime() const noexcept { return m_last_packet_time; }

private:
    pktwire::UdpTxSocket m_socket;
    std::size_t m_num_frames;
    std::size_t m_sent = 0;
    std::chrono::microseconds m_pause{0};
    std::chrono::steady_clock::time_point m_last_packet_time;
};

struct CameraSender {
    CameraSender(const Camera& camera, std::uint16_t port)
        : socket{UdpConfig(port), camera.num_frames},
          qudex{QudexConfig(camera), socket, nullptr},
          lspx{LspxConfig(camera), qudex},
          frame(std::size_t{camera.pixels} * 2) {}

    static constexpr std::uint32_t TOPIC = 0;

    static pktwire::UdpTxSocket::Config UdpConfig(std::uint16_t port) {
        pktwire::UdpTxSocket::Config config;
        config.ip.dst = pktwire::Ipv4{"127.0.0.1"};
        config.udp.dst = port;
        return config;
    }
    static pktwire::qudex::Sender::Config QudexConfig(const Camera& camera) {
        pktwire::qudex::Sender::Config config;
        config.topic = TOPIC;
        config.num_frames = camera.num_frames;
        return config;
    }
    static pktwire::lspx::Sender::Config LspxConfig(const Camera& camera) {
        pktwire::lspx::Sender::Config config;
        config.endianness = camera.endianness;
        config.leader_extended_info_size = 8;
        config.frame_size = camera.pixels;
        return config;
    }

    void SendFrame() {
        const std::array<std::byte, 8> info{};
        if (lspx.SendSample(info, frame, {}, {}, {}, {})) throw std::runtime_error("the frame can't be sent");
    }

    HoldingSocket socket;
    pktwire::qudex::Sender qudex;
    pktwire::lspx::Sender lspx;
    std::vector<std::byte> frame;
};

}  // namespace vosk::bench
