// FieldStabilizationInput, FieldStabilizationOutput, GpaoInput and GpaoOutput, cycle by cycle without their
// threads: the test plays the flowgraph on one side and the other threads on the other.

#include "loopBench.hpp"

#include <lumolib/fieldStabilizationInput.hpp>
#include <lumolib/fieldStabilizationOutput.hpp>
#include <lumolib/gpaoInput.hpp>
#include <lumolib/gpaoOutput.hpp>
#include <lumolib/simSourceManager.hpp>
#include <vosk/test/messageQueue.hpp>

namespace vosk::lumo {
namespace {

using namespace test;
using common::shmif::ShmReaderRT;
using common::shmif::ShmWriterRT;
using Floats = std::vector<float>;

class FlowgraphTest : public LoopTest {
protected:
    FlowgraphTest() { DefineResamplers(""); }
    ~FlowgraphTest() override { SimSourceManager::GetInstance().m_simulator.reset(); }

    std::string FileOf(const Floats& matrix, std::size_t columns) const {
        common::Fits::WriteImg<float>(common::Fits::FitsFileWrite(m_dir / "m.fits", true, {}), matrix,
                                      {columns, matrix.size() / columns});
        return m_dir / "m.fits";
    }

    static constexpr const char* GPAO_KEYS = ", busy: false, timeout: 0 us}";
    atomclk::ManualClock m_clock{START};
    common::shmif::ShmIf m_shm;
    const vosk::test::TempDir m_dir;
};

class FsInput : public FlowgraphTest {
protected:
    void Make(const std::string& keys = "") {
        m_input.emplace("{busy: false, shm_topic: fs_in, update_interval: 2 ms, update_offset: 0 us" + keys +
                        "}");
        m_flowgraph.emplace(m_shm, "fs_in");
    }
    // The record that the flowgraph gets, as the 37 floats behind time and ID.
    Floats Cycle() {
        m_input->RunCycle(START);
        common::shmif::FieldStablizationTopicIn record;
        EXPECT_TRUE(m_flowgraph->TimedReceive(&record, nanoseconds{0}));
        EXPECT_EQ(record.timestamp, START);
        EXPECT_EQ(record.sample_id, ++m_cycles);
        Floats values(37);
        std::memcpy(values.data(), reinterpret_cast<const char*>(&record) + 12, 148);
        return values;
    }
    static void AddCentroid(unsigned number, double x) {
        Results(Camera{number})->AddSample({START, 1, {0, x, x + 1}});
    }
    static void AddReference(float x) {
        Get<FsRefDataSync>()->SetData(defs::FsRef{{x, x + 1}, {x + 2, x + 3}, {x + 4, x + 5}}, 0U, START);
    }
    // How often each of the eleven inputs had news.
    static auto News() { return RuntimeMonitor::GetPerformanceData().GetFSTelemetryData().fs_input_counts; }

    unsigned m_cycles = 0;
    std::optional<Running<FieldStabilizationInput>> m_input;
    std::optional<ShmReaderRT> m_flowgraph;
};

TEST_F(FsInput, FillsTheRecordInOrderAndKeepsWhatHasNoNews) {
    Make();
    const LogCapture log;
    EXPECT_THAT(Cycle(), Each(0.0F));
    for (unsigned i = 0; i < 8; ++i) AddCentroid(i, 1 + 2 * i);
    pfs::PFSTargetData target;
    for (unsigned i = 0; i < 3; ++i) {
        target.guide_probes[i].tip = 17.0 + 2 * i;
        target.guide_probes[i].tilt = 18.0 + 2 * i;
        target.guide_probes[i].value = 23.0 + i;
    }
    target.pointing.values[4] = 34.0;
    Get<PfsInputDataSync>()->SetData(target, 1U, START);
    Get<M5InputDataSync>()->SetData(FloatVectorTT{26, 27}, 1U, START);
    AddReference(28.0F);
    Floats expected{1,  2,  3,  4, 5, 6,  7,  8,  9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19,
                    20, 21, 22, 0, 0, 23, 24, 25, 0, 26, 27, 32, 33, 28, 29, 30, 31, 34};
    EXPECT_EQ(Cycle(), expected);
    EXPECT_EQ(Cycle(), expected);  // without news
    EXPECT_THAT(News(), Each(1U));
    AddCentroid(3, -1);
    AddCentroid(6, -3);
    std::ranges::copy(std::array{-1.0F, 0.0F}, expected.begin() + 6);
    std::ranges::copy(std::array{-3.0F, -2.0F}, expected.begin() + 12);
    EXPECT_EQ(Cycle(), expected);
    EXPECT_THAT(News(), ElementsAre(1, 1, 1, 2, 1, 1, 2, 1, 1, 1, 1));
    EXPECT_THAT(log.Texts("by 9, ").back(), HasSubstr("PDS = 2\n\n\tWFS Tip/Tilt Error GP1 = 3\n"));
    while (m_cycles < 500) Cycle();
    EXPECT_EQ(vosk::test::Drain(m_shm.GetPrefix() + "fs_in_telem").size(), 1U);
}

TEST_F(FsInput, LoopbacksFollowTheOutputsWhateverTheirFlags) {
    Make(", loopback_m5_output: true, loopback_m4_output: true");
    Get<M5OutputDataSync>(false)->SetData(FloatVectorTT{1, 2}, 1U, START);
    Get<AoTasksFsDataSync>(false)->SetData(3.0F, 4.0F, 1U, START);
    Get<M5OutputDataSync>(false)->ClearDataReady();
    AddReference(5.0F);
    for (const unsigned cycles : {1U, 2U}) {
        const Floats values = Cycle();
        EXPECT_EQ(Floats(values.begin() + 28, values.end() - 1), (Floats{1, 2, 3, 4, 5, 6, 7, 8}));
        EXPECT_EQ(News()[9], cycles);
        EXPECT_EQ(News()[10], 1U);
    }
    EXPECT_TRUE(Get<AoTasksFsDataSync>(false)->IsNewData());  // it is AoTasks' to clear
}

struct Simulator : simulation::CentroidSimulator {
    bool GetSimCentroids(CentroidError& gp1, CentroidError& gp2, CentroidError& gp3, CentroidError& pds,
                         WfsTopic& wfs_gp1, WfsTopic& wfs_gp2, WfsTopic& wfs_gp3,
                         WfsTopic& wfs_pds) override {
        double x = 0.0;
        for (CentroidError* error : {&gp1, &gp2, &gp3, &pds}) error->slope = {9.0, ++x, -x};
        for (WfsTopic* topic : {&wfs_gp1, &wfs_gp2, &wfs_gp3, &wfs_pds})
            topic->slopes.assign(1, {9.0, ++x, -x});
        return has_data;
    }
    bool IsEnabled() override { return true; }
    bool has_data = true;
};

TEST_F(FsInput, SimulatedCentroidsStandForTheImagingCamerasAlone) {
    const auto simulator = std::make_shared<Simulator>();
    SimSourceManager::GetInstance().m_simulator = simulator;
    Make(", centroid_sim_enabled: true");
    for (const unsigned number : {0U, 4U}) AddCentroid(number, 50);
    for (const bool has_data : {true, false}) {
        simulator->has_data = has_data;
        Floats values = Cycle();
        values.resize(16);
        EXPECT_THAT(values, ElementsAre(1, -1, 2, -2, 3, -3, 4, -4, 0, 0, 0, 0, 0, 0, 0, 0));
        EXPECT_THAT(News(), ElementsAre(1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0));
    }
    EXPECT_EQ(AllocationsOf([&] { m_input->RunCycle(START); }), 0U);
    const auto all = std::make_unique<SimulatedCentroids>();
    EXPECT_FALSE(all->Fetch());
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(all->wfs[i].slopes[0].x, 5.0 + static_cast<double>(i));
}

class FsOutput : public FlowgraphTest {
protected:
    using Record = common::shmif::FieldStablizationTopicOut;

    Record MakeRecord() const {
        Record record{
            .timestamp = START - nanoseconds{1}, .sample_id = 77, .pfs = {{{1, 2}, {3, 4}, {5, 6}}}};
        record.m5 = {7, 8};
        record.u4_tt = {9, 10};
        record.ms = {11, 12};
        return record;
    }
    bool Cycle(std::uint32_t number, std::optional<Record> record = {}) {
        EXPECT_TRUE(!record || m_flowgraph.TimedSend(&*record, microseconds{0}));
        return m_output.RunCycle(START, number);
    }

    Running<FieldStabilizationOutput> m_output{
        "{busy: false, shm_topic: fs_out, update_interval: 1 ms, update_offset: 0 us}"};
    ShmWriterRT m_flowgraph{m_shm, "fs_out"};
    MSOutputDataSync& m_ms = *Get<MSOutputDataSync>(false);
    PfsOutputDataSync& m_pfs = *Get<PfsOutputDataSync>(false);
    M5OutputDataSync& m_m5 = *Get<M5OutputDataSync>(false);
    AoTasksFsDataSync& m_fs = *Get<AoTasksFsDataSync>(false);
};

TEST_F(FsOutput, SpreadsARecordAndRepeatsItUnderTheCycleWhileNoneThatIsUsableComes) {
    const auto expect = [&](unsigned id, AtomClk::time_point time) {
        EXPECT_THAT(m_pfs.GetData().gp_tt,
                    ElementsAre(FloatVectorTT{1, 2}, FloatVectorTT{3, 4}, FloatVectorTT{5, 6}));
        EXPECT_EQ(m_m5.GetData(), (FloatVectorTT{7, 8}));
        EXPECT_EQ(m_fs.GetData(), (FloatVectorTT{9, 10}));
        EXPECT_EQ(m_ms.GetData(), (FloatVectorTT{11, 12}));
        EXPECT_EQ(Get<AoFieldStabilizationU4DataSync>()->GetData().payload.tilt, 10.0F);
        const auto carries = [&](const auto& sync) {
            return sync.GetSampleId() == id && sync.GetTimestamp() == time;
        };
        EXPECT_TRUE(carries(m_ms) && carries(m_pfs) && carries(m_m5) && carries(m_fs));
    };
    EXPECT_TRUE(Cycle(0));
    EXPECT_EQ(m_m5.GetData(), FloatVectorTT{});
    EXPECT_TRUE(Cycle(1, MakeRecord()));
    expect(77, START - nanoseconds{1});
    const std::vector<std::function<void(Record&)>> faults{
        [](Record& record) { record.ms.tip = NAN; },
        [](Record& record) { record.m5.tilt = -INFINITY; },
        [](Record& record) { record.pfs[2].tilt = NAN; },
        [](Record& record) { record.u4_tt.tip = NAN; },
        [](Record& record) { record.timestamp = START + seconds{1} + nanoseconds{1}; },
        [](Record& record) { record.timestamp = AtomClk::time_point::min(); },
        [](Record& record) { record.input_timestamp = AtomClk::time_point::min(); }};
    for (unsigned i = 0; i < faults.size(); ++i) {
        Record record = MakeRecord();
        record.u4_tt.tilt = 100;
        faults[i](record);
        const unsigned mode = 1 + i % 6;
        SetMode(defs::VoskControlMode{mode});
        m_fs.ClearDataReady();
        EXPECT_TRUE(Cycle(2 + i, record));
        expect(2 + i, START);
        EXPECT_EQ(m_fs.IsDataReady(), mode == 1 || mode == 5);  // in these it paces AoTasks
        EXPECT_EQ(Counted().unusable_flowgraph_records, i + 1);
    }
    const auto counts = RuntimeMonitor::GetPerformanceData().GetFSTelemetryData();
    EXPECT_EQ(counts.fs_output_cycles, 9U);
    EXPECT_EQ(counts.fs_output_count, 1U);
    EXPECT_EQ(AllocationsOf([&] { Cycle(9); }), 0U);
    m_ms.ClearDataReady();
    m_output.SetRunning(false);  // a stop during the read
    EXPECT_FALSE(Cycle(10, MakeRecord()));
    EXPECT_FALSE(m_ms.IsNewData());
}

// It would else wait a minute for the flowgraph, and the grid would run away from it.
TEST_F(FlowgraphTest, AReadOfFsOutputEndsWithARecordOrAtTheNextGridPoint) {
    for (const char* busy : {"false", "true"}) {
        Running<FieldStabilizationOutput> output{
            std::string{"{busy: "} + busy +
            ", shm_topic: fs_out, update_interval: 60000 ms, update_offset: 0 us}"};
        EXPECT_TRUE(output.RunCycle(START - std::chrono::minutes{1}, 0)) << busy;
        ShmWriterRT flowgraph{m_shm, "fs_out"};
        common::shmif::FieldStablizationTopicOut record;
        record.sample_id = 7;
        record.timestamp = record.input_timestamp = START;
        ASSERT_TRUE(flowgraph.TimedSend(&record, microseconds{0}));
        EXPECT_TRUE(output.RunCycle(atomclk::AtomClk::now(), 1)) << busy;
        EXPECT_EQ(Get<M5OutputDataSync>(false)->GetSampleId(), 7U) << busy;
    }
}

// Small whole numbers, so that a product is exact in whatever order it is summed.
Floats Numbers(std::size_t count, std::size_t step) {
    Floats numbers(count);
    for (std::size_t i = 0; i < count; ++i) numbers[i] = static_cast<float>(i * step % 7) - 3.0F;
    return numbers;
}

// product[k] = sum over i of matrix[i][k] * vector[i]
Floats Product(const Floats& matrix, std::span<const float> vector) {
    Floats product(matrix.size() / vector.size());
    for (std::size_t i = 0; i < matrix.size(); ++i)
        product[i % product.size()] += matrix[i] * vector[i / product.size()];
    return product;
}

TEST_F(FlowgraphTest, GpaoInputTakesCoefficientsAsTheyComeAndWhatElseIsNew) {
    const Floats matrix = Numbers(GpaoInput::INS2GPAO_SIZE, 5);
    Running<GpaoInput> input{"{shm_topic: gpao_in, ins2gpao_path: " + FileOf(matrix, 52) + GPAO_KEYS};
    ShmReaderRT flowgraph{m_shm, "gpao_in"};
    Floats applied = Numbers(defs::INS_CMD_SIZE, 3);
    const auto apply = [&] {
        Get<GpaoM4SetpointAppliedDataSync>()->SetData(
            std::span<const float, M4_CMD_SIZE>{applied}.first<defs::INS_CMD_SIZE>(), 1U, START);
    };
    applied.resize(M4_CMD_SIZE);
    apply();
    GpaoM4SetpointGpao last;
    last.command.fill(6.0F);
    Get<GpaoM4SetpointGpaoDataSync>()->SetData(last, 1U, START);
    GpaoCoefficients coefficients;
    common::shmif::GpaoTopicIn record;
    const auto cycle = [&] {
        Get<GpaoCoefficientsDataSync>(false)->SetData(
            coefficients, VoskTelescopeStateManager::GetActiveCameraFs(), 8U, START);
        EXPECT_TRUE(input.RunCycle());
        EXPECT_TRUE(flowgraph.TimedReceive(&record, nanoseconds{0}));
    };
    std::optional<LogCapture> log{std::in_place};
    for (const unsigned number : {1U, 2U}) {  // the second time with new coefficients alone
        coefficients.modes.fill(static_cast<float>(number));
        cycle();
        EXPECT_EQ(record.sample_id, number);
        EXPECT_THAT(record.coefficients, Each(static_cast<float>(number)));
        EXPECT_THAT(record.applied_m4_cmd, ElementsAreArray(Product(matrix, applied)));
        EXPECT_THAT(record.last_gpao_cmd, Each(6.0F));
    }
    EXPECT_THAT(log->Texts("Error state"),
                ElementsAre(HasSubstr("Coefficients Input = 0\n\tM4 Setpoint Applied Input = 1\n")));
    log.reset();
    EXPECT_EQ(AllocationsOf([&] { apply(), cycle(); }), 0U);
}

TEST_F(FlowgraphTest, GpaoOutputProjectsEachCommandAndExpectsTheFirstToBeNumberOne) {
    const Floats matrix = Numbers(GpaoOutput::GPAO2INS_SIZE, 3);
    Running<GpaoOutput> output{"{shm_topic: gpao_out, gpao2ins_path: " + FileOf(matrix, 4866) + GPAO_KEYS};
    ShmWriterRT flowgraph{m_shm, "gpao_out"};
    const auto tasks = Get<AoTasksGpaoDataSync>(false);
    std::optional<LogCapture> log{std::in_place};
    common::shmif::GpaoTopicOut record{.timestamp = START};
    for (unsigned mode = 1; mode <= 7; ++mode) {
        if (mode < 7) SetMode(defs::VoskControlMode{mode});
        std::ranges::copy(Numbers(52, mode), record.gpao_cmd.begin());
        if (mode == 7) record.gpao_cmd[51] = INFINITY;
        record.sample_id = mode < 6 ? mode : 9;
        ASSERT_TRUE(flowgraph.TimedSend(&record, microseconds{0}));
        output.RunCycle();
        EXPECT_EQ(tasks->IsNewData(), mode < 7);
        EXPECT_EQ(tasks->IsDataReady(), mode == 4 || mode == 6) << mode;
        tasks->ClearDataReady();
        if (mode == 7) break;
        EXPECT_THAT(tasks->GetData().command, ElementsAreArray(Product(matrix, record.gpao_cmd)));
        EXPECT_EQ(Get<GpaoM4SetpointGpaoDataSync>()->GetData().command, record.gpao_cmd);
    }
    EXPECT_THAT(log->Texts("GpaoOutput: "), ElementsAre(EndsWith("\n\tSample ID mismatch = 1\n")));
    EXPECT_EQ(Counted().unusable_flowgraph_records, 1U);
    log.reset();
    record.gpao_cmd.fill(1.0F);
    EXPECT_EQ(AllocationsOf([&] {
                  ++record.sample_id;
                  flowgraph.TimedSend(&record, microseconds{0});
                  output.RunCycle();
              }),
              0U);
    EXPECT_EQ(tasks->GetSampleId(), record.sample_id);
}

}  // namespace
}  // namespace vosk::lumo
