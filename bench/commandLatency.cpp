// From a wavefront command's first packet to the setpoint's last one: through the whole library, threads
// asleep in between, against the least that the same road costs (the same packets, the same three threads,
// the matrix streamed twice) with nothing else done on it.

#include "bare.hpp"
#include "bench.hpp"

#include <unistd.h>

#include <fmt/format.h>
#include <log4cplus/loglevel.h>
#include <gim/config.hpp>
#include <lumolib/libMain.hpp>
#include <lumolib/voskHandoverManager.hpp>
#include <pktwire/lspx.hpp>
#include <vosk/common/fits.hpp>
#include <vosk/common/logSetup.hpp>
#include <vosk/defs/wireRecords.hpp>

#include <array>
#include <atomic>
#include <filesystem>
#include <numeric>
#include <stdexcept>
#include <thread>

namespace vosk::bench {
namespace {

using namespace std::chrono_literals;
using defs::AoWavefrontCmdStream;
using defs::M4Setpoint;

constexpr std::size_t MODES = 200;
constexpr int WARM_UP = 50;
constexpr int SAMPLES = 400;
constexpr auto PAUSE = 1ms;  // between samples, so that every thread has gone to sleep
constexpr std::uint32_t COMMAND_TOPIC = 1;
constexpr std::uint32_t SETPOINT_TOPIC = 2;

// A command without a time, under a send delay of 0, has the planned send time 0, which means at once: the
// library's own time is measured, not a wait that somebody configured.
constexpr pktwire::time_point SEND_AT_ONCE{};

pktwire::UdpRxSocket::Config ListenAnywhere() {
    pktwire::UdpRxSocket::Config config;
    config.ip.listen = pktwire::Ipv4("127.0.0.1");
    config.iface_name = "lo";
    config.rxbuf_size = 1U << 22U;
    return config;
}

pktwire::UdpTxSocket::Config SendTo(std::uint16_t port) {
    pktwire::UdpTxSocket::Config config;
    config.ip.dst = pktwire::Ipv4("127.0.0.1");
    config.udp.dst = port;
    return config;
}

std::uint16_t FreePort() {
    return pktwire::UdpRxSocket(ListenAnywhere(), nullptr).LocalPort();
}

// Collects the durations of `round_trip`, one at a time.
template <class RoundTrip>
double MedianUs(RoundTrip round_trip) {
    std::vector<double> durations;
    for (int i = 0; i < WARM_UP + SAMPLES; ++i) {
        std::this_thread::sleep_for(PAUSE);
        const double duration = TimeUs([&] { round_trip(i); });
        if (i >= WARM_UP) durations.push_back(duration);
    }
    return Percentile(durations, 0.5);
}

// ---- The library ------------------------------------------------------------------------------------------

class LibraryLoop {
public:
    LibraryLoop()
        : m_command_port(FreePort()), m_socket(ListenAnywhere(), nullptr), m_library("/vosk_bench_") {
        common::SetupLogging(log4cplus::OFF_LOG_LEVEL);
        lumo::ResetControlState();
        gim::Config config;
        config.ParseText(MakeDocument(), "bench");
        m_library.SetupThreads(config);
        m_library.StartThreads();
        m_library.SetVoskMode(defs::VoskControlMode::INS_DRIVEN_CASCADE, {});

        pktwire::qudex::Sender::Config qudex;
        qudex.topic = COMMAND_TOPIC;
        qudex.num_frames = 5;
        m_command_socket = std::make_unique<pktwire::UdpTxSocket>(SendTo(m_command_port), nullptr);
        m_qudex = std::make_unique<pktwire::qudex::Sender>(qudex, *m_command_socket, nullptr);
        pktwire::lspx::Sender::Config lspx;
        lspx.endianness = pktwire::lspx::LITTLE_ENDIAN_UNITS;
        lspx.leader_extended_info_size = sizeof(AoWavefrontCmdStream::ExtInfo::Header);
        lspx.frame_size = defs::WAVEFRONT_CMD_SIZE;
        m_sender = std::make_unique<pktwire::lspx::Sender>(lspx, *m_qudex);

        pktwire::qudex::Receiver::Config receiver;
        receiver.topic = SETPOINT_TOPIC;
        receiver.num_frames = 3;
        m_receiver = std::make_unique<pktwire::qudex::Receiver>(receiver, m_socket, nullptr);
        FinishHandover();
    }
    ~LibraryLoop() {
        m_library.StopThreads();
        std::filesystem::remove(m_matrix_file);
    }
    LibraryLoop(const LibraryLoop&) = delete;
    LibraryLoop& operator=(const LibraryLoop&) = delete;

    void RoundTrip() {
        Send();
        if (!Receive(1s)) throw std::runtime_error("no setpoint within a second");
    }

private:
    std::string MakeDocument() {
        const std::vector<float> matrix(defs::M4_CMD_SIZE * MODES, 1e-3F);
        common::Fits::WriteImg<float>(common::Fits::FitsFileWrite(m_matrix_file.string(), true), matrix,
                                      {MODES, defs::M4_CMD_SIZE});
        return fmt::format(
            "cfg:\n"
            "  ao:\n"
            "    wavefront_cmd_stream: [{{busy: false, timeout: 50 ms, listen_ip: 127.0.0.1, listen_udp: {}, "
            "iface_name: lo, qudex_topic: {}}}]\n"
            "    ao_tasks: [{{busy: false, m4_send_delay: 0 us, m4_response_timeout: 0 us, "
            "gpao_highest_mode: 52, "
            "delta_scaling: true, managed_modes: {}, m2p_path: {}, threshold_velocity: 1, threshold_gap: "
            "10}}]\n"
            "  m4:\n"
            "    output: [{{busy: false, ip_dest: 127.0.0.1, udp_dest: {}, qudex_topic: {}}}]\n",
            m_command_port, COMMAND_TOPIC, MODES, m_matrix_file.string(), m_socket.LocalPort(),
            SETPOINT_TOPIC);
    }

    void Send() {
        m_info.flags = AoWavefrontCmdStream::ExtInfo::VALID;
        m_payload.command.fill(0.01F);
        const auto error = m_sender->SendSample(
            {reinterpret_cast<const std::byte*>(&m_info), sizeof m_info},
            {reinterpret_cast<const std::byte*>(&m_payload), sizeof m_payload}, {}, SEND_AT_ONCE, {}, {});
        if (error) throw std::system_error(error);
    }

    bool Receive(std::chrono::nanoseconds timeout) {
        return m_receiver
            ->ReceiveSample({reinterpret_cast<std::byte*>(&m_setpoint), sizeof m_setpoint}, timeout)
            .second.has_value();
    }

    // The first command after a change of mode is thrown away.
    void FinishHandover() {
        for (int attempt = 0; attempt < 100; ++attempt) {
            Send();
            if (Receive(50ms)) return;
        }
        throw std::runtime_error("the handover to the instrument doesn't end");
    }

    std::filesystem::path m_matrix_file =
        std::filesystem::temp_directory_path() / fmt::format("vosk-bench-{}.fits", getpid());
    std::uint16_t m_command_port;
    pktwire::UdpRxSocket m_socket;
    lumo::LibMain m_library;
    std::unique_ptr<pktwire::UdpTxSocket> m_command_socket;
    std::unique_ptr<pktwire::qudex::Sender> m_qudex;
    std::unique_ptr<pktwire::lspx::Sender> m_sender;
    std::unique_ptr<pktwire::qudex::Receiver> m_receiver;
    AoWavefrontCmdStream::ExtInfo::Header m_info;
    AoWavefrontCmdStream::Payload m_payload;
    M4Setpoint::Payload m_setpoint;
};

// ---- The bare road ----------------------------------------------------------------------------------------

// Hands a number from one thread to the next; the receiver sleeps in the kernel.
class Step {
public:
    static constexpr int STOP = -1;
    void Tell(int number) {
        m_number.store(number);
        m_number.notify_one();
    }
    int WaitForOther(int known) const {
        m_number.wait(known);
        return m_number.load();
    }

private:
    std::atomic<int> m_number{0};
};

class BareLoop {
public:
    BareLoop()
        : m_receiver([this] { ReceiveCommands(); }),
          m_streamer([this] { StreamMatrix(); }),
          m_sender([this] { SendSetpoints(); }) {}
    ~BareLoop() {
        m_outside.SendTo(m_inside, {});
        m_receiver.join();
        m_streamer.join();
        m_sender.join();
    }
    BareLoop(const BareLoop&) = delete;
    BareLoop& operator=(const BareLoop&) = delete;

    void RoundTrip() {
        const std::span<const std::byte> command = std::as_bytes(std::span(m_command));
        m_outside.SendTo(m_inside, command.first(64));
        for (std::size_t i = 0; i < 3; ++i) m_outside.SendTo(m_inside, command.subspan(i * PIECE, PIECE));
        m_outside.SendTo(m_inside, command.first(64));
        for (std::size_t i = 0; i < 3; ++i) m_outside.Receive(std::as_writable_bytes(std::span(m_answer)));
    }

private:
    static constexpr std::size_t PIECE = sizeof(AoWavefrontCmdStream::Payload) / 3;

    void ReceiveCommands() {
        std::vector<std::byte> packet(65536);
        for (int count = 1;; ++count) {
            for (std::size_t frame = 0; frame < 5; ++frame) {
                if (m_inside.Receive(packet)) continue;
                m_received.Tell(Step::STOP);
                return;
            }
            m_received.Tell(count);
        }
    }

    void StreamMatrix() {
        int known = 0;
        while ((known = m_received.WaitForOther(known)) != Step::STOP) {
            for (int pass = 0; pass < 2; ++pass) {
                // Eight sums side by side, as many as it takes not to wait for an addition.
                std::array<float, 128> sums{};
                for (std::size_t i = 0; i + sums.size() <= m_matrix.size(); i += sums.size())
                    for (std::size_t lane = 0; lane < sums.size(); ++lane) sums[lane] += m_matrix[i + lane];
                m_sum = std::accumulate(sums.begin(), sums.end(), 0.0F);
            }
            m_made.Tell(known);
        }
        m_made.Tell(Step::STOP);
    }

    void SendSetpoints() {
        int known = 0;
        while ((known = m_made.WaitForOther(known)) != Step::STOP) {
            for (const M4Setpoint::Segment& segment : M4Setpoint::SEGMENTS)
                m_inside.SendTo(m_outside,
                                std::as_bytes(std::span(m_setpoint)).subspan(segment.offset, segment.length));
        }
    }

    BareSocket m_inside;
    BareSocket m_outside;
    std::vector<float> m_matrix = std::vector<float>(defs::M4_CMD_SIZE * MODES, 1.0F);
    std::vector<float> m_command = std::vector<float>(defs::WAVEFRONT_CMD_SIZE);
    std::vector<std::byte> m_setpoint = std::vector<std::byte>(sizeof(M4Setpoint::Payload));
    std::vector<float> m_answer = std::vector<float>(defs::M4_CMD_SIZE + 2);
    volatile float m_sum = 0.0F;  // so that the compiler can't leave the reading out
    Step m_received;
    Step m_made;
    std::thread m_receiver;
    std::thread m_streamer;
    std::thread m_sender;
};

}  // namespace

std::vector<Row> BenchCommandLatency() {
    Row row;
    row.what = fmt::format("command in to setpoint out, median, {} modes, threads asleep", MODES);
    row.against = "bare packets, three threads, matrix streamed twice";
    row.unit = "us";
    {
        LibraryLoop loop;
        row.ours = MedianUs([&](int) { loop.RoundTrip(); });
    }
    {
        BareLoop loop;
        row.reference = MedianUs([&](int) { loop.RoundTrip(); });
    }
    return {row};
}

}  // namespace vosk::bench
