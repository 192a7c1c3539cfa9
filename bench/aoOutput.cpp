// How late the four samples of the AO output leave, beside a bare wait and packet at the same times.

#include "legs.hpp"

#include <fmt/format.h>
#include <lumolib/aoOutput.hpp>

#include <array>

namespace vosk::bench {
namespace {

using namespace std::chrono_literals;

constexpr std::array STREAMS{"m5_ptt_act", "fs_u4", "m4_setpoint_applied", "m4_cap_sens_act"};
using Stamps = std::array<AtomClk::time_point, STREAMS.size()>;

constexpr std::chrono::microseconds DelayOf(std::size_t stream) {
    return 500us + static_cast<int>(stream) * 300us;
}

struct Cycle {
    AtomClk::time_point beat;
    Stamps stamps;
};

// Of the first packet of each stream, how long behind its time; from the fourth stream's last packet on.
class Lateness {
public:
    template <class Run>
    explicit Lateness(const Run& run) {
        for (int i = 0; i < WARM_UP + SAMPLES; ++i) {
            const auto [beat, stamps] = run();
            for (std::size_t stream = 0; i >= WARM_UP && stream < STREAMS.size(); ++stream)
                m_us[stream].push_back(Us(stamps[stream] - beat - DelayOf(stream)));
        }
    }
    Figures Of(std::size_t stream) { return FiguresOf(m_us[stream]); }

private:
    std::array<std::vector<double>, STREAMS.size()> m_us;
};

// The stamps of each stream's first packet of so many.
Stamps Receive(std::array<StampedSocket, STREAMS.size()>& instrument,
               const std::array<int, STREAMS.size()>& num_frames) {
    Stamps stamps;
    for (std::size_t stream = 0; stream < STREAMS.size(); ++stream) {
        stamps[stream] = instrument[stream].ReceiveTime();
        for (int i = 1; i < num_frames[stream]; ++i) instrument[stream].ReceiveTime();
    }
    return stamps;
}

void BenchLateness(const std::vector<int>& cpus, bool busy, std::vector<Row>& rows) {
    std::array<StampedSocket, STREAMS.size()> instrument;
    Surroundings::Renew();
    std::string keys = fmt::format("busy: {}, cpu: {}", busy, cpus[0]);
    for (std::size_t i = 0; i < STREAMS.size(); ++i) {
        keys += fmt::format(", {}: {{ip_dest: 127.0.0.1, udp_dest: {}, qudex_topic: {}, send_delay: {} us}}",
                            STREAMS[i], instrument[i].Port(), i, DelayOf(i).count());
    }
    lumo::AoOutput output{Surroundings::NodeOf(keys)};
    output.Start().get();
    auto& beats = Object<lumo::AoOutputDataSync>(busy);
    defs::sample_id_t id = 0;
    std::optional<Lateness> ours;
    RunOn(cpus[1], [&] {
        ours.emplace([&] {
            // A beat that comes during a cycle is dropped.
            while (beats.IsDataReady()) std::this_thread::sleep_for(PAUSE);
            const auto beat = AtomClk::now();
            beats.SetData(lumo::AoWavefrontCmdTimestamps{beat, beat}, ++id, beat);
            return Cycle{beat, Receive(instrument, {3, 3, 5, 5})};
        });
    });
    output.Stop();

    const BareSocket sender;
    const std::array<std::byte, 64> packet{};
    AtomClk::time_point bare_beat;
    std::optional<Lateness> bare;
    const auto send = [&] {
        for (std::size_t stream = 0; stream < STREAMS.size(); ++stream) {
            BareWaitUntil(bare_beat + DelayOf(stream), busy);
            sender.SendTo(instrument[stream], packet);
        }
    };
    WithBareChain(busy, {{cpus[0], send}}, [&](auto& chain) {
        RunOn(cpus[1], [&] {
            bare.emplace([&] {
                bare_beat = AtomClk::now();
                chain.Start();
                chain.Await();
                return Cycle{bare_beat, Receive(instrument, {1, 1, 1, 1})};
            });
        });
    });
    for (std::size_t i = 0; i < STREAMS.size(); ++i) {
        AddRows(fmt::format("AoOutput: {} behind its time, {}", STREAMS[i], HowItWaits(busy)),
                "bare wait, packet", ours->Of(i), bare->Of(i), rows);
    }
}

}  // namespace

std::vector<Row> BenchAoOutput() {
    const auto cpus = SomeCpus(2);
    if (cpus.size() < 2) return {};
    const Surroundings surroundings;
    std::vector<Row> rows;
    for (const bool busy : {false, true}) BenchLateness(cpus, busy, rows);
    return rows;
}

}  // namespace vosk::bench
