// The roads of GPAO: from coefficients to the record in the mailbox, from the flowgraph's answer to AoTasks
// awake, beside the same wake-ups bare and the matrix streamed once. Also both projections alone.

#include "legs.hpp"

#include <fmt/format.h>
#include <lumolib/gpaoInput.hpp>
#include <lumolib/gpaoOutput.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>

#include <numeric>
#include <random>

namespace vosk::bench {
namespace {

using namespace std::chrono_literals;
using common::shmif::GpaoTopicIn;
using common::shmif::GpaoTopicOut;
using Floats = std::vector<float>;

constexpr std::size_t MODES = defs::GPAO_CMD_SIZE;
constexpr auto CAMERA = defs::Camera::WFS_GP1;

Floats RandomFloats(std::size_t count) {
    std::mt19937 engine{1};
    std::normal_distribution<float> normal;
    Floats values(count);
    for (float& value : values) value = normal(engine);
    return values;
}

template <class Project>
void BenchProjection(const std::string& what, const Floats& matrix, const Project& project,
                     std::vector<Row>& rows) {
    std::vector<double> ours;
    std::vector<double> stream;
    for (int i = 0; i < 5 * SAMPLES; ++i) {
        ours.push_back(TimeUs(project));
        stream.push_back(TimeUs([&] { Stream(matrix); }));
    }
    AddRows("GPAO projection, " + what, "streaming the matrix", FiguresOf(ours), FiguresOf(stream), rows);
}

void BenchProjections(const Floats& ins2gpao, const Floats& gpao2ins, std::vector<Row>& rows) {
    const Floats applied = RandomFloats(defs::M4_CMD_SIZE);
    const Floats command = RandomFloats(MODES);
    Floats gpao(MODES);
    Floats ins(defs::INS_CMD_SIZE);
    using lumo::GpaoInput;
    using lumo::GpaoOutput;
    BenchProjection(
        "5352 x 52 transposed", ins2gpao,
        [&] {
            GpaoInput::ProjectionIns2Gpao(std::span<const float, GpaoInput::INS2GPAO_SIZE>{ins2gpao},
                                          std::span<const float, defs::M4_CMD_SIZE>{applied},
                                          std::span<float, MODES>{gpao});
        },
        rows);
    BenchProjection(
        "52 x 4866 transposed", gpao2ins,
        [&] {
            GpaoOutput::ProjectionGpao2Ins(std::span<const float, GpaoOutput::GPAO2INS_SIZE>{gpao2ins},
                                           std::span<const float, MODES>{command},
                                           std::span<float, defs::INS_CMD_SIZE>{ins});
        },
        rows);
}

void BenchInput(const std::vector<int>& cpus, bool busy, const std::string& file, const Floats& matrix,
                std::vector<Row>& rows) {
    Surroundings::Renew();
    lumo::VoskTelescopeStateManager::SetActiveCameraFS(CAMERA);
    common::shmif::ShmIf shm;
    lumo::GpaoInput input{Surroundings::NodeOf(
        fmt::format("busy: {}, cpu: {}, shm_topic: gpao_in, timeout: 500 us, ins2gpao_path: {}, "
                    "diagnostic_mute: true",
                    busy, cpus[0], file))};
    common::shmif::ShmReaderRT flowgraph{shm, "gpao_in"};
    input.Start().get();
    auto& coefficients = Object<lumo::GpaoCoefficientsDataSync>(busy);
    const Floats applied = RandomFloats(defs::INS_CMD_SIZE);
    const auto made = std::make_unique<lumo::GpaoCoefficients>();
    GpaoTopicIn record;
    defs::sample_id_t id = 0;
    Figures ours{};
    RunOn(cpus[1], [&] {
        ours = Measure([&] {
            std::this_thread::sleep_for(PAUSE);
            Object<lumo::GpaoM4SetpointAppliedDataSync>().SetData(
                std::span<const float, defs::INS_CMD_SIZE>{applied}, ++id, AtomClk::now());
            Object<lumo::GpaoM4SetpointGpaoDataSync>().SetData(lumo::GpaoM4SetpointGpao{}, id,
                                                               AtomClk::now());
            return TimeUs([&] {
                coefficients.SetData(*made, CAMERA, id, AtomClk::now());
                Receive(flowgraph, busy, record);
            });
        });
    });
    input.Stop();
    const auto bare = MeasureBareEcho(cpus, busy, [&] { Stream(matrix); });
    AddRows("GpaoInput: coefficients to record read, " + HowItWaits(busy),
            "two bare wake-ups, streaming the matrix", ours, bare, rows);
}

void BenchOutput(const std::vector<int>& cpus, bool busy, const std::string& file, const Floats& matrix,
                 std::vector<Row>& rows) {
    Surroundings::Renew();
    lumo::VoskTelescopeStateManager::SetCurrentControlMode(defs::VoskControlMode::TEL_DRIVEN_WITH_GPAO_TT);
    common::shmif::ShmIf shm;
    lumo::GpaoOutput output{Surroundings::NodeOf(
        fmt::format("busy: {}, cpu: {}, shm_topic: gpao_out, timeout: {}, gpao2ins_path: {}, "
                    "diagnostic_mute: true",
                    busy, cpus[0], busy ? "0 us" : "10 ms", file))};
    common::shmif::ShmWriterRT flowgraph{shm, "gpao_out"};
    output.Start().get();
    auto& awaited = Object<lumo::AoTasksGpaoDataSync>(busy);
    GpaoTopicOut record;
    Figures ours{};
    RunOn(cpus[1], [&] {
        ours = Measure([&] {
            std::this_thread::sleep_for(PAUSE);
            record.timestamp = record.input_timestamp = AtomClk::now();
            ++record.sample_id;
            return UsToWaiter(awaited, [&] { flowgraph.TimedSend(&record, 500us); });
        });
    });
    output.Stop();
    const Floats made(defs::INS_CMD_SIZE);
    Floats copy(defs::INS_CMD_SIZE);
    const auto bare = MeasureBareEcho(cpus, busy, [&] {
        Stream(matrix);
        copy = made;
    });
    AddRows("GpaoOutput: command in to AoTasks awake, " + HowItWaits(busy),
            "two bare wake-ups, streaming the matrix, a copy", ours, bare, rows);
}

}  // namespace

std::vector<Row> BenchGpao() {
    const auto cpus = SomeCpus(2);
    if (cpus.size() < 2) return {};
    const Surroundings surroundings;
    const auto ins2gpao = RandomFloats(lumo::GpaoInput::INS2GPAO_SIZE);
    const auto gpao2ins = RandomFloats(lumo::GpaoOutput::GPAO2INS_SIZE);
    const auto ins2gpao_file = surroundings.Write("ins2gpao.fits", ins2gpao, {MODES, defs::M4_CMD_SIZE});
    const auto gpao2ins_file = surroundings.Write("gpao2ins.fits", gpao2ins, {defs::INS_CMD_SIZE, MODES});
    std::vector<Row> rows;
    BenchProjections(ins2gpao, gpao2ins, rows);
    for (const bool busy : {false, true}) {
        BenchInput(cpus, busy, ins2gpao_file, ins2gpao, rows);
        BenchOutput(cpus, busy, gpao2ins_file, gpao2ins, rows);
    }
    return rows;
}

}  // namespace vosk::bench
