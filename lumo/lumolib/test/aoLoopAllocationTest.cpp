// The whole AO loop in one process, with every call of operator new counted: once it runs, nothing allocates.

#include "testSupport.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomclk/atomClk.hpp>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <gim/config.hpp>
#include <lumolib/libMain.hpp>
#include <lumolib/voskHandoverManager.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>
#include <new>
#include <pktwire/lspx.hpp>
#include <vosk/common/fits.hpp>
#include <vosk/defs/wireRecords.hpp>

namespace {

std::atomic<std::size_t> allocations{0};

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size)) return memory;
    throw std::bad_alloc{};
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

namespace vosk::lumo {
namespace {

constexpr std::uint32_t MODES = 20;
constexpr int WARM_UP = 20;
constexpr int CYCLES = 50;
constexpr atomclk::AtomClk::time_point START{std::chrono::hours{1}};

std::uint16_t Port(int number) {
    return static_cast<std::uint16_t>(20000 + 3 * (::getpid() % 9000) + number);
}

pktwire::UdpTxSocket::Config To(std::uint16_t port) {
    pktwire::UdpTxSocket::Config config{};
    config.ip.dst = pktwire::Ipv4{"127.0.0.1"};
    config.udp.dst = port;
    return config;
}

pktwire::qudex::Sender::Config Frames(std::uint16_t num_frames) {
    pktwire::qudex::Sender::Config config{};
    config.topic = 1;
    config.num_frames = num_frames;
    return config;
}

// The instrument and M4, in the test's own thread.
class Peers {
public:
    Peers() : m_command_sender{LspxConfig(), m_command_frames} {}

    bool RunCycle(unsigned id) {
        m_command_sender.SetSampleId(id);
        const std::array<std::byte, 4> info{std::byte{defs::AoWavefrontCmdStream::ExtInfo::VALID}};
        if (m_command_sender.SendSample(info, gsl::as_bytes(gsl::span{&m_command, 1}), {}, START, {}, {}))
            return false;
        if (VoskHandoverManager::GetInstance().GetM4CmdSource() != defs::AoCommandSource::INS) return true;
        // An answer that comes before AoTasks has begun to wait for it is forgotten: then it is given again.
        const auto buffer = gsl::as_writable_bytes(gsl::span{&m_setpoint, 1});
        for (auto waited = REPEAT; waited < test::PATIENCE; waited += REPEAT) {
            const auto [error, sample] = m_setpoint_receiver.ReceiveSample(buffer, REPEAT);
            if (error == std::errc::timed_out) {
                Answer();
            } else if (error || !sample) {
                return false;
            } else {
                m_answered_id = sample->first->SampleId();
                return Answer();
            }
        }
        return false;
    }

private:
    static constexpr std::chrono::milliseconds REPEAT{500};

    bool Answer() {
        m_answer_sender.SetSampleId(m_answered_id);
        m_answer_time += std::chrono::nanoseconds{1};
        return !m_answer_sender.SendSample(gsl::as_bytes(gsl::span{&m_answer, 1}), m_answer_time, {});
    }

    static pktwire::lspx::Sender::Config LspxConfig() {
        pktwire::lspx::Sender::Config config{};
        config.endianness = pktwire::lspx::LITTLE_ENDIAN_UNITS;
        config.leader_extended_info_size = 4;
        config.frame_size = defs::WAVEFRONT_CMD_SIZE;
        return config;
    }
    static pktwire::UdpRxSocket::Config At(std::uint16_t port) {
        pktwire::UdpRxSocket::Config config{};
        config.ip.listen = pktwire::Ipv4{"127.0.0.1"};
        config.udp.listen = port;
        return config;
    }
    static pktwire::qudex::Receiver::Config ReceiverConfig() {
        pktwire::qudex::Receiver::Config config{};
        config.topic = 1;
        config.num_frames = 3;
        return config;
    }

    defs::AoWavefrontCmdStream::Payload m_command{};
    defs::M4Setpoint::Payload m_setpoint{};
    defs::M4SetpointApplied::Payload m_answer{};
    unsigned m_answered_id = 0;
    atomclk::AtomClk::time_point m_answer_time = START;
    pktwire::UdpTxSocket m_command_socket{To(Port(0)), nullptr};
    pktwire::qudex::Sender m_command_frames{Frames(5), m_command_socket, nullptr};
    pktwire::lspx::Sender m_command_sender;
    pktwire::UdpRxSocket m_setpoint_socket{At(Port(1)), nullptr};
    pktwire::qudex::Receiver m_setpoint_receiver{ReceiverConfig(), m_setpoint_socket, nullptr};
    pktwire::UdpTxSocket m_answer_socket{To(Port(2)), nullptr};
    pktwire::qudex::Sender m_answer_sender{Frames(3), m_answer_socket, nullptr};
};

std::string Receiver(std::uint16_t port) {
    return "[{busy: false, timeout: \"5 ms\", listen_ip: 127.0.0.1, iface_name: lo, qudex_topic: 1, "
           "listen_udp: " +
           std::to_string(port) + "}]";
}

TEST(AoLoop, AllocatesNothingOnceItRuns) {
    // A clock that stands still: no setpoint is ever late, no answer ever overdue.
    const atomclk::ManualClock clock{START};
    const auto m2p =
        std::filesystem::temp_directory_path() / ("aoLoop." + std::to_string(::getpid()) + ".fits");
    const std::vector<float> matrix(MODES * defs::M4_CMD_SIZE, 0.01F);
    common::Fits::WriteImg<float>(common::Fits::FitsFileWrite(m2p, true, {}), matrix,
                                  {MODES, defs::M4_CMD_SIZE});

    Peers peers;
    gim::Config config;
    config.ParseText(
        "cfg: {ao: {wavefront_cmd_stream: " + Receiver(Port(0)) +
            ", ao_tasks: [{busy: false, m4_send_delay: \"0 us\", m4_response_timeout: \"60000 ms\", "
            "gpao_highest_mode: 10, delta_scaling: true, managed_modes: 20, threshold_velocity: 1.0, "
            "threshold_gap: 1.0, m2p_path: " +
            m2p.string() + "}]}, m4: {input: " + Receiver(Port(2)) +
            ", output: [{busy: false, ip_dest: 127.0.0.1, qudex_topic: 1, udp_dest: " +
            std::to_string(Port(1)) + "}]}, statistics: {m4: \"2 ms\", ao: \"2 ms\"}}",
        "test.yaml");
    const auto& handover = VoskHandoverManager::GetInstance();
    ResetControlState();
    LibMain library{"aoLoop" + std::to_string(::getpid()) + "_"};
    library.SetupThreads(config);
    library.StartThreads();
    library.SetVoskMode(defs::VoskControlMode::INS_DRIVEN_CASCADE, {});

    // Two commands take the handover to its end; each needs to be taken up before the next.
    unsigned id = 0;
    ASSERT_TRUE(peers.RunCycle(++id));
    ASSERT_TRUE(test::Eventually(
        [&] { return handover.GetState() == VoskHandoverManager::HANDOVER_WAIT_NEXT_INS_CMD; }));
    EXPECT_TRUE(peers.RunCycle(++id));
    ASSERT_TRUE(test::Eventually([&] { return handover.GetState() == VoskHandoverManager::INS_CONTROL; }));
    for (int i = 0; i < WARM_UP; ++i) ASSERT_TRUE(peers.RunCycle(++id));

    const auto before = allocations.load();
    for (int i = 0; i < CYCLES; ++i) ASSERT_TRUE(peers.RunCycle(++id));
    EXPECT_EQ(allocations.load(), before);

    library.StopThreads();
    std::filesystem::remove(m2p);
}

}  // namespace
}  // namespace vosk::lumo
