#pragma once

// What the tests of the AO loop share: the process-wide objects in their first state, the nodes of the
// threads, and a peer that sends to them on the loopback interface.

#include "testSupport.hpp"

#include <gim/config.hpp>
#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/dataSyncManager.hpp>
#include <lumolib/lumoThread.hpp>
#include <lumolib/resamplerManager.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/voskHandoverManager.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>
#include <pktwire/detail/wire.hpp>
#include <pktwire/lspx.hpp>
#include <vosk/common/fits.hpp>
#include <vosk/common/shmif/shmIf.hpp>
#include <vosk/common/telegraf/telemSender.hpp>
#include <vosk/test/allocationCount.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/loopback.hpp>
#include <vosk/test/recordingSocket.hpp>
#include <vosk/test/tempDir.hpp>

namespace vosk::lumo::test {

using atomclk::AtomClk;
using common::telegraf::TelemSender;
using defs::M4_CMD_SIZE;
using defs::WAVEFRONT_CMD_SIZE;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using namespace testing;
using defs::Camera;
using defs::FloatVectorTT;
using vosk::test::LogCapture;
using vosk::test::TextOf;
using vosk::test::UniquePort;
using enum defs::VoskControlMode;

inline constexpr AtomClk::time_point START{std::chrono::hours{1}};
inline constexpr int TOPIC = 7;

template <class T, class... Args>
std::shared_ptr<T> Get(Args... args) {
    return DataSyncManager::GetInstance().GetOrRegisterDataSync<T>(typename T::InstanceTag{}, args...);
}

class LoopTest : public ::testing::Test {
protected:
    LoopTest() {
        common::shmif::ShmIf::Setup(vosk::test::UniqueName() + "_");
        DataSyncManager::CreateInstance();
        RuntimeMonitor::CreateInstance(gim::Config{}).Reset();
        ResetControlState();
    }
    ~LoopTest() override { common::shmif::ShmIf::Teardown(); }

    static const CommandCounts& Counted() { return *RuntimeMonitor::GetInstance().m_command_counts; }
    static void SetMode(defs::VoskControlMode mode) {
        VoskTelescopeStateManager::SetCurrentControlMode(mode);
    }
};

// A thread whose cycles the test runs.
template <class Base>
struct Running : Base {
    explicit Running(const std::string& keys) : Base{CfgOf("cfg: " + keys)} { SetRunning(true); }
    ~Running() override { SetRunning(false); }
    void SetRunning(bool run) { common::SetRunning(this->m_running, run); }
    using Base::RunCycle;
};

struct Datagram {
    explicit Datagram(const std::string& bytes) {
        std::memcpy(&header, bytes.data(), sizeof header);
        for (const char byte : bytes.substr(sizeof header))
            hex += fmt::format("{:02x}", static_cast<std::uint8_t>(byte));
    }
    AtomClk::time_point Time() const { return AtomClk::time_point{header.timestamp}; }
    pktwire::wire::QudexHeader header;
    std::string hex;  // of what stands behind the header
};

// A sending thread whose cycles the test runs.
template <class Base>
struct Sending : Running<Base> {
    explicit Sending(const std::string& keys)
        : Running<Base>{"{busy: false, ip_dest: 127.0.0.1, udp_dest: 9" + keys + "}"} {
        this->m_sender = std::make_unique<pktwire::qudex::Sender>(this->m_qudex_cfg, socket, nullptr);
    }
    std::vector<Datagram> Sent() const { return {socket.datagrams.begin(), socket.datagrams.end()}; }
    vosk::test::RecordingSocket socket;
};

// Of twenty cycles behind a first one; in a program that links vosk_allocation_count.
template <class Cycle>
std::size_t AllocationsOf(const Cycle& cycle) {
    cycle();
    const auto before = vosk::test::AllocationsOfThisThread();
    for (int i = 0; i < 20; ++i) cycle();
    return vosk::test::AllocationsOfThisThread() - before;
}

// As the threads that feed and read it find it.
inline auto Results(defs::Camera camera) {
    return GetCentroidResampler(vosk::test::NodeOf("{}"), camera);
}
inline void DefineResamplers(const std::string& definitions) {
    gim::Config config;
    config.ParseText("cfg: {resamplers: [" + definitions + "]}", "test.yaml");
    ResamplerManager::CreateInstance(config, "resamplers");
}

// Metrics go to this agent while the object lives.
struct TelemetryAgent {
    TelemetryAgent() { Set("127.0.0.1", 8094); }
    ~TelemetryAgent() { Set("", 0); }
    static void Set(const char* address, int port) {
        TelemSender::m_default_telegraph_host_ip_addr = address;
        TelemSender::m_default_telegraph_port = port;
    }
};

inline std::string ReceiverKeys(int number = 0) {
    return "{busy: false, timeout: 20 ms, listen_ip: " + vosk::test::LoopbackOf(number) +
           ", iface_name: lo, qudex_topic: " + std::to_string(TOPIC) +
           ", listen_udp: " + std::to_string(vosk::test::PortOf(number)) + "}";
}

// Writes the matrix, actuators by modes, to m2p.fits of the directory. Far thresholds: what is commanded is
// what goes out.
inline std::string AoTasksKeys(const vosk::test::TempDir& directory, const std::vector<float>& m2p,
                               const std::string& send_delay, const std::string& response_timeout) {
    const std::size_t modes = m2p.size() / M4_CMD_SIZE;
    const std::string file = directory / "m2p.fits";
    common::Fits::WriteImg<float>(common::Fits::FitsFileWrite(file, true, {}), m2p, {modes, M4_CMD_SIZE});
    return "{busy: false, gpao_highest_mode: 10, delta_scaling: true, m2p_path: " + file +
           ", managed_modes: " + std::to_string(modes) + ", m4_send_delay: " + send_delay +
           ", m4_response_timeout: " + response_timeout + ", threshold_velocity: 1e6, threshold_gap: 1e6}";
}

// Sends of each sample the packets from `first` on, `count` of them.
struct PartSocket final : pktwire::TxSocket {
    explicit PartSocket(int number) : socket{vosk::test::SendingToNumber(number), nullptr} {}
    std::error_code Send(std::span<mmsghdr> messages) noexcept override {
        return socket.Send(messages.subspan(first, count));
    }
    pktwire::UdpTxSocket socket;
    std::size_t first = 0;
    std::size_t count = std::dynamic_extent;
};

inline pktwire::qudex::Sender::Config SamplesOf(std::uint16_t num_frames) {
    pktwire::qudex::Sender::Config config{};
    config.topic = TOPIC;
    config.num_frames = num_frames;
    return config;
}

// Sends to the receiver of the same number. Allocates nothing for a sample.
class Peer {
public:
    explicit Peer(std::uint16_t num_frames, int number = 0)
        : m_socket{number}, m_sender{SamplesOf(num_frames), m_socket, nullptr} {}

    template <class Record>
    void Send(const Record& record, unsigned id, AtomClk::time_point time) {
        m_sender.SetSampleId(id);
        ASSERT_FALSE(m_sender.SendSample(gsl::as_bytes(gsl::span{&record, 1}), time, {}));
    }

    void SendCommand(bool valid, std::span<const float> command, unsigned id, AtomClk::time_point time) {
        pktwire::lspx::Sender::Config config{};
        config.source = pktwire::lspx::OTHER_SOURCE;
        config.endianness = pktwire::lspx::LITTLE_ENDIAN_UNITS;
        config.leader_extended_info_size = 4;
        config.frame_size = static_cast<std::uint32_t>(command.size());
        pktwire::lspx::Sender sender{config, m_sender};
        const std::array<std::byte, 4> info{std::byte{valid}};
        sender.SetSampleId(id);
        const gsl::span units{command.data(), command.size()};
        ASSERT_FALSE(sender.SendSample(info, gsl::as_bytes(units), {}, time, {}, {}));
    }

    // Stops the receiver between the packets of sample 7, starts it again, and sends the rest and sample 8.
    template <class Sync, class SendSample>
    void RestartWithinASample(Thread&& receiver, const Sync& sync, SendSample send) {
        for (const std::size_t first : {std::size_t{0}, std::size_t{1}}) {
            receiver.Stop();
            receiver.Start().get();
            m_socket.first = first;
            m_socket.count = first == 0 ? 1 : std::dynamic_extent;
            send(7);
        }
        m_socket.first = 0;
        send(8);
        EXPECT_TRUE(Eventually([&] { return sync.GetSampleId() == 8; }));
        receiver.Stop();
    }

private:
    PartSocket m_socket;
    pktwire::qudex::Sender m_sender;
};

}  // namespace vosk::lumo::test
