#pragma once

// The instrument's other ear: receives the four streams that tell it what the telescope did, and writes down
// what each sample held. One thread looks at all sockets in turn; the kernel tells when a packet came.

#include "appendLog.hpp"
#include "digest.hpp"
#include "host/ports.hpp"
#include "peers/arrivalSocket.hpp"
#include "peers/peer.hpp"

#include <pktwire/lspx.hpp>

#include <array>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace vosk::rig {

// In the order in which they leave.
enum class AoStream { M5Position, FieldStabilisation, SetpointApplied, Sensors };
inline constexpr std::size_t AO_STREAMS = 4;
// With the prefix "ao:".
const char* NameOf(AoStream stream);

struct AoSample {
    defs::sample_id_t id = 0;
    time_point stamped;        // in the packets' headers
    time_point arrived;        // of the first packet
    time_point receive_time;   // in the leader of M5's position and of the setpoint applied: of the command
    time_point data_time;      // there as well: of M5's sample, or when M4 applied the setpoint
    std::uint16_t status = 0;  // the status word of the setpoint applied; elsewhere the valid byte
    std::array<float, 3> values{};  // the leading ones
    Digest digest;                  // of all values
};

class AoStreamReceiver {
public:
    // Throws std::system_error if the socket can't be made.
    AoStreamReceiver(AoStream stream, std::uint16_t port, std::size_t capacity);

    // Takes the samples that are there.
    void Drain();

    const AppendLog<AoSample>& Log() const { return m_log; }
    std::uint64_t Broken() const { return m_broken; }  // samples that came in parts; that thread

private:
    void Take(const pktwire::lspx::Receiver::LeaderPacket& leader);

    const AoStream m_stream;
    ArrivalSocket m_socket;
    pktwire::lspx::Receiver m_receiver;
    std::vector<std::byte> m_leader_info;
    std::vector<float> m_payload;
    AppendLog<AoSample> m_log;
    std::uint64_t m_broken = 0;
};

class AoStreamsPeer final : public Peer {
public:
    AoStreamsPeer(const Scenario& scenario, Ports& ports);
    ~AoStreamsPeer() override { Stop(); }

    void AddTo(HostDocument& document) const override;
    void Start(time_point first) override;
    std::string Progress() const override;
    void Stop() override;
    PeerAccount Account(const RunFacts& facts) const override;

    std::span<const AoSample> Samples(AoStream stream) const { return At(stream).Log().Entries(); }
    // After Stop().
    std::uint64_t Broken(AoStream stream) const { return At(stream).Broken(); }

private:
    const AoStreamReceiver& At(AoStream stream) const {
        return *m_receivers[static_cast<std::size_t>(stream)];
    }
    void Run();

    const Scenario& m_scenario;
    std::array<std::uint16_t, AO_STREAMS> m_ports;
    std::array<std::unique_ptr<AoStreamReceiver>, AO_STREAMS> m_receivers;
    std::atomic<bool> m_running{false};
    std::thread m_thread;
};

}  // namespace vosk::rig
