// The roads of field stabilisation: from a grid point to the record in the mailbox, from the flowgraph's
// answer to the exchange objects, from an exchange object to M5's packet, and all of it in a row. Each stands
// beside the same wake-ups on bare futexes or atomics; a wait for a grid point is no part of any.

#include "legs.hpp"

#include <fmt/format.h>
#include <lumolib/fieldStabilizationInput.hpp>
#include <lumolib/fieldStabilizationOutput.hpp>
#include <lumolib/m5InputOutput.hpp>
#include <lumolib/resamplerManager.hpp>
#include <lumolib/timeGrid.hpp>

#include <array>

namespace vosk::bench {
namespace {

using namespace std::chrono_literals;
using common::shmif::FieldStablizationTopicIn;
using common::shmif::FieldStablizationTopicOut;
using common::shmif::ShmReaderRT;
using common::shmif::ShmWriterRT;
using defs::CentroidError;

constexpr std::chrono::milliseconds INTERVAL{2};

AtomClk::time_point GridPointAfter(AtomClk::time_point time, std::chrono::microseconds offset = 0us) {
    return lumo::CeilToNextInterval(time, INTERVAL, offset);
}

std::string InputKeys(int cpu, bool busy, std::chrono::microseconds offset) {
    return fmt::format(
        "busy: {}, cpu: {}, shm_topic: fs_in, timeout: 500 us, update_interval: {} ms, update_offset: {} us, "
        "diagnostic_mute: true",
        busy, cpu, INTERVAL.count(), offset.count());
}

std::string OutputKeys(int cpu, bool busy) {
    return fmt::format(
        "busy: {}, cpu: {}, shm_topic: fs_out, update_interval: {} ms, update_offset: 0 us, diagnostic_mute: "
        "true",
        busy, cpu, INTERVAL.count());
}

std::string M5Keys(int cpu, bool busy, std::uint16_t port) {
    return fmt::format("busy: {}, cpu: {}, ip_dest: 127.0.0.1, udp_dest: {}, qudex_topic: 1", busy, cpu,
                       port);
}

// News for each of FSInput's eleven sources.
class Sources {
public:
    Sources() {
        for (std::size_t i = 0; i < m_resamplers.size(); ++i) {
            m_resamplers[i] =
                lumo::ResamplerManager::GetInstance()
                    .GetOrRegisterResampler<CentroidError, signal_processing::NoDataAccessor<CentroidError>>(
                        Surroundings::NodeOf(""), "cent_err_resampler", static_cast<int>(i), false);
        }
    }
    void Renew() {
        const auto now = AtomClk::now();
        for (const auto& resampler : m_resamplers) resampler->AddSample({now, ++m_id, {1.0, 0.1, 0.2}});
        Object<lumo::PfsInputDataSync>().SetData(m_pfs, m_id, now);
        Object<lumo::M5InputDataSync>().SetData(defs::FloatVectorTT{0.1F, 0.2F}, m_id, now);
        Object<lumo::FsRefDataSync>().SetData(defs::FsRef{}, m_id, now);
    }

private:
    std::array<std::shared_ptr<signal_processing::Resampler<CentroidError>>, 8> m_resamplers;
    pfs::PFSTargetData m_pfs{};
    defs::sample_id_t m_id = 0;
};

// From the middle of an interval on it is clear which grid point comes next.
AtomClk::time_point SleepToMiddle() {
    const auto next = GridPointAfter(AtomClk::now() + INTERVAL / 2);
    BareWaitUntil(next - INTERVAL / 2, false);
    return next;
}

void BenchInput(const std::vector<int>& cpus, bool busy, std::vector<Row>& rows) {
    Surroundings::Renew();
    Sources sources;
    common::shmif::ShmIf shm;
    lumo::FieldStabilizationInput input{Surroundings::NodeOf(InputKeys(cpus[0], busy, 0us))};
    ShmReaderRT flowgraph{shm, "fs_in"};
    input.Start().get();
    Figures ours{};
    RunOn(cpus[1], [&] {
        FieldStablizationTopicIn record;
        ours = Measure([&] {
            const auto point = SleepToMiddle();
            sources.Renew();
            do {
                Receive(flowgraph, busy, record);
            } while (record.timestamp < point);
            return Us(AtomClk::now() - record.timestamp);
        });
    });
    input.Stop();

    Figures bare{};
    AtomClk::time_point point;
    WithBareChain(busy, {{cpus[0], [&] { BareWaitUntil(point, busy); }}}, [&](auto& chain) {
        RunOn(cpus[1], [&] {
            bare = Measure([&] {
                point = SleepToMiddle();
                chain.Start();
                chain.Await();
                return Us(AtomClk::now() - point);
            });
        });
    });
    AddRows(fmt::format("FSInput: grid point to record read, {}", HowItWaits(busy)),
            "bare wait for a time, wake-up", ours, bare, rows);
}

void BenchOutput(const std::vector<int>& cpus, bool busy, std::vector<Row>& rows) {
    Surroundings::Renew();
    common::shmif::ShmIf shm;
    lumo::FieldStabilizationOutput output{Surroundings::NodeOf(OutputKeys(cpus[0], busy))};
    ShmWriterRT flowgraph{shm, "fs_out"};
    output.Start().get();
    auto& awaited = Object<lumo::AoTasksFsDataSync>(busy);
    FieldStablizationTopicOut record;
    Figures ours{};
    RunOn(cpus[1], [&] {
        ours = Measure([&] {
            std::this_thread::sleep_for(INTERVAL);  // a record of the last interval has been read
            record.timestamp = record.input_timestamp = SleepToMiddle();
            ++record.sample_id;
            return UsToWaiter(awaited, [&] { flowgraph.TimedSend(&record, 500us); });
        });
    });
    output.Stop();
    AddRows(fmt::format("FSOutput: record in to AoTasks awake, {}", HowItWaits(busy)), "two bare wake-ups",
            ours, MeasureBareEcho(cpus, busy, [] {}), rows);
}

void BenchM5(const std::vector<int>& cpus, bool busy, std::vector<Row>& rows) {
    Surroundings::Renew();
    StampedSocket m5;
    lumo::M5Output output{Surroundings::NodeOf(M5Keys(cpus[0], busy, m5.Port()))};
    output.Start().get();
    auto& sync = Object<lumo::M5OutputDataSync>(busy);
    defs::sample_id_t id = 0;
    Figures ours{};
    Figures bare{};
    RunOn(cpus[1], [&] {
        ours = Measure([&] {
            std::this_thread::sleep_for(PAUSE);
            const auto start = AtomClk::now();
            sync.SetData(defs::FloatVectorTT{0.1F, 0.2F}, ++id, start);
            return Us(m5.ReceiveTime() - start);
        });
    });
    output.Stop();
    const BareSocket sender;
    const std::array<std::byte, 64> packet{};
    WithBareChain(busy, {{cpus[0], [&] { sender.SendTo(m5, packet); }}}, [&](auto& chain) {
        RunOn(cpus[1], [&] {
            bare = Measure([&] {
                std::this_thread::sleep_for(PAUSE);
                const auto start = AtomClk::now();
                chain.Start();
                chain.Await();
                return Us(m5.ReceiveTime() - start);
            });
        });
    });
    AddRows(fmt::format("M5Output: command stored to packet out, {}", HowItWaits(busy)),
            "bare wake-up, packet", ours, bare, rows);
}

using Flowgraph = AnsweringFlowgraph<FieldStablizationTopicIn, FieldStablizationTopicOut>;
// M5 at the first imaging camera's error.
void AnswerError(const FieldStablizationTopicIn& in, FieldStablizationTopicOut& out) {
    out.m5 = in.img_centroid_error[0];
}

struct Layout {
    std::string name;
    bool busy;
    std::array<int, 4> cpus;  // FSInput, flowgraph, FSOutput, M5Output
    int reader;
};

void BenchLeg(const Layout& layout, std::vector<Row>& rows) {
    constexpr auto OFFSET = 200us;  // of FSInput: FSOutput waits for the record by then
    const auto& [name, busy, cpus, reader] = layout;
    StampedSocket m5;
    Figures ours{};
    {
        Surroundings::Renew();
        Sources sources;
        lumo::FieldStabilizationInput input{Surroundings::NodeOf(InputKeys(cpus[0], busy, OFFSET))};
        lumo::FieldStabilizationOutput output{Surroundings::NodeOf(OutputKeys(cpus[2], busy))};
        lumo::M5Output m5_output{Surroundings::NodeOf(M5Keys(cpus[3], busy, m5.Port()))};
        const Flowgraph flowgraph{"fs", cpus[1], busy, AnswerError};
        m5_output.Start().get();
        output.Start().get();
        input.Start().get();
        RunOn(reader, [&] {
            ours = Measure([&] {
                for (;;) {
                    sources.Renew();
                    const auto sent = m5.ReceiveTime();
                    const auto since = sent - (GridPointAfter(sent, OFFSET) - INTERVAL);
                    // Ahead of the point FSOutput repeats what it had no answer to.
                    if (since >= since.zero()) return Us(since);
                }
            });
        });
        input.Stop();
        output.Stop();
        m5_output.Stop();
    }

    StampedSocket bare_m5;
    const BareSocket sender;
    const std::array<std::byte, 64> packet{};
    FieldStablizationTopicIn in;
    FieldStablizationTopicOut out;
    const FieldStablizationTopicIn made_in;
    const FieldStablizationTopicOut made_out;
    AtomClk::time_point point;
    Figures bare{};
    WithBareChain(layout.busy,
                  {{cpus[0],
                    [&] {
                        BareWaitUntil(point, layout.busy);
                        in = made_in;
                    }},
                   {cpus[1], [&] { out = made_out; }},
                   {cpus[2], [&] { out = made_out; }},
                   {cpus[3], [&] { sender.SendTo(bare_m5, packet); }}},
                  [&](auto& chain) {
                      RunOn(layout.reader, [&] {
                          bare = Measure([&] {
                              point = SleepToMiddle();
                              chain.Start();
                              chain.Await();
                              return Us(bare_m5.ReceiveTime() - point);
                          });
                      });
                  });
    AddRows("grid point to M5's packet, " + name, "bare wait, three wake-ups, copies, packet", ours, bare,
            rows);
}

}  // namespace

std::vector<Row> BenchFieldStabilization() {
    const auto cpus = SomeCpus(5);
    if (cpus.size() < 2) return {};
    const Surroundings surroundings;
    std::vector<Row> rows;
    for (const bool busy : {false, true}) {
        BenchInput(cpus, busy, rows);
        BenchOutput(cpus, busy, rows);
        BenchM5(cpus, busy, rows);
    }
    BenchLeg({"asleep, two CPUs by turns", false, {cpus[0], cpus[1], cpus[0], cpus[1]}, cpus[0]}, rows);
    BenchLeg({"asleep, one CPU", false, {cpus[0], cpus[0], cpus[0], cpus[0]}, cpus[1]}, rows);
    if (cpus.size() == 5) BenchLeg({"spinning", true, {cpus[0], cpus[1], cpus[2], cpus[3]}, cpus[4]}, rows);
    return rows;
}

}  // namespace vosk::bench
