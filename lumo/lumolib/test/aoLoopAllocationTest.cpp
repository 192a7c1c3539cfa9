// The whole AO loop in one process, with every call of operator new counted: once it runs, nothing allocates,
// but where a thinned telemetry step calls for it.

#include "testSupport.hpp"

#include <gtest/gtest.h>

#include <array>
#include <atomclk/atomClk.hpp>
#include <gim/config.hpp>
#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/dataSyncManager.hpp>
#include <lumolib/libMain.hpp>
#include <lumolib/voskHandoverManager.hpp>
#include <pktwire/lspx.hpp>
#include <vosk/common/fits.hpp>
#include <vosk/common/telegraf/telemSender.hpp>
#include <vosk/defs/wireRecords.hpp>
#include <vosk/test/allocationCount.hpp>
#include <vosk/test/loopback.hpp>
#include <vosk/test/tempDir.hpp>

namespace vosk::lumo {
namespace {

using common::telegraf::TelemSender;
using enum VoskHandoverManager::State;
using vosk::test::AllocationsOfAllThreads;
using vosk::test::Listening;
using vosk::test::SendingTo;
using vosk::test::UniquePort;

constexpr std::uint32_t MODES = 20;
constexpr unsigned TELEMETRY_STEP = 500;
constexpr atomclk::AtomClk::time_point START{std::chrono::hours{1}};

pktwire::qudex::Sender::Config Frames(std::uint16_t num_frames) {
    pktwire::qudex::Sender::Config config{};
    config.topic = 1;
    config.num_frames = num_frames;
    return config;
}

// The instrument, field stabilisation and M4, in the test's own thread.
class Peers {
public:
    Peers() : m_command_sender{LspxConfig(), m_command_frames} {}

    bool Command() {
        m_command_sender.SetSampleId(++m_command_id);
        const std::array<std::byte, 4> info{std::byte{defs::AoWavefrontCmdStream::ExtInfo::VALID}};
        return !m_command_sender.SendSample(info, gsl::as_bytes(gsl::span{&m_command, 1}), {}, START, {}, {});
    }

    bool TipTilt() {
        DataSyncManager::GetInstance()
            .GetOrRegisterDataSync<AoTasksFsDataSync>(AoTasksFsDataSync::InstanceTag::DEFAULT, false)
            ->SetData(0.0F, 0.0F, 1U, START);
        return true;
    }

    // Takes the next setpoint and answers it. An answer that comes before AoTasks has begun to wait for it is
    // forgotten: then it is given again.
    bool AnswerSetpoint() {
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

    unsigned AnsweredId() const { return m_answered_id; }

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
    static pktwire::qudex::Receiver::Config ReceiverConfig() {
        pktwire::qudex::Receiver::Config config{};
        config.topic = 1;
        config.num_frames = 3;
        return config;
    }

    defs::AoWavefrontCmdStream::Payload m_command{};
    defs::M4Setpoint::Payload m_setpoint{};
    defs::M4SetpointApplied::Payload m_answer{};
    unsigned m_command_id = 0;
    unsigned m_answered_id = 0;
    atomclk::AtomClk::time_point m_answer_time = START;
    pktwire::UdpTxSocket m_command_socket{SendingTo(UniquePort(0)), nullptr};
    pktwire::qudex::Sender m_command_frames{Frames(5), m_command_socket, nullptr};
    pktwire::lspx::Sender m_command_sender;
    pktwire::UdpRxSocket m_setpoint_socket{Listening(UniquePort(1)), nullptr};
    pktwire::qudex::Receiver m_setpoint_receiver{ReceiverConfig(), m_setpoint_socket, nullptr};
    pktwire::UdpTxSocket m_answer_socket{SendingTo(UniquePort(2)), nullptr};
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
    const vosk::test::TempDir directory;
    const std::string m2p = directory / "m2p.fits";
    common::Fits::WriteImg<float>(common::Fits::FitsFileWrite(m2p, true, {}),
                                  std::vector<float>(MODES * defs::M4_CMD_SIZE, 0.01F),
                                  {MODES, defs::M4_CMD_SIZE});
    TelemSender::m_default_telegraph_host_ip_addr = "127.0.0.1";
    TelemSender::m_default_telegraph_port = 8094;

    Peers peers;
    gim::Config config;
    config.ParseText(
        "cfg: {ao: {wavefront_cmd_stream: " + Receiver(UniquePort(0)) +
            ", ao_tasks: [{busy: false, m4_send_delay: \"0 us\", m4_response_timeout: \"60000 ms\", "
            "gpao_highest_mode: 10, delta_scaling: true, managed_modes: 20, threshold_velocity: 1.0, "
            "threshold_gap: 1.0, m2p_path: " +
            m2p + "}]}, m4: {input: " + Receiver(UniquePort(2)) +
            ", output: [{busy: false, ip_dest: 127.0.0.1, qudex_topic: 1, udp_dest: " +
            std::to_string(UniquePort(1)) + "}]}, statistics: {m4: \"2 ms\", ao: \"2 ms\"}}",
        "test.yaml");
    const auto& handover = VoskHandoverManager::GetInstance();
    ResetControlState();
    LibMain library{vosk::test::UniqueName() + "_"};
    library.SetupThreads(config);
    library.StartThreads();

    // Runs up to a sample ID, the first cycles uncounted.
    const auto run = [&](bool (Peers::*begin)(), unsigned last) {
        const unsigned counted_from = peers.AnsweredId() + 20;
        std::size_t before = 0;
        while (peers.AnsweredId() < last) {
            if (peers.AnsweredId() <= counted_from) before = AllocationsOfAllThreads();
            ASSERT_TRUE((peers.*begin)() && peers.AnswerSetpoint());
        }
        EXPECT_EQ(AllocationsOfAllThreads(), before);
    };
    run(&Peers::TipTilt, 60);

    library.SetVoskMode(defs::VoskControlMode::INS_DRIVEN_CASCADE, {});
    ASSERT_TRUE(peers.Command());
    ASSERT_TRUE(test::Eventually([&] { return handover.GetState() == HANDOVER_WAIT_NEXT_INS_CMD; }));
    run(&Peers::Command, TELEMETRY_STEP - 1);
    ASSERT_TRUE(peers.Command() && peers.AnswerSetpoint());
    run(&Peers::Command, TELEMETRY_STEP + 50);

    library.StopThreads();
    TelemSender::m_default_telegraph_port = 0;
}

}  // namespace
}  // namespace vosk::lumo
