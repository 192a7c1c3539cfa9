// AoTasks as a thread between exchange objects: the test plays the instrument, M4Output and M4.

#include "testSupport.hpp"

#include <vosk/test/support.hpp>

#include <atomclk/atomClk.hpp>
#include <gim/config.hpp>
#include <lumolib/aoTasks.hpp>
#include <lumolib/dataSyncManager.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/voskHandoverManager.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>
#include <vosk/common/fits.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/tempDir.hpp>

namespace vosk::lumo {
namespace {

using atomclk::AtomClk;
using defs::M4_CMD_SIZE;
using log4cplus::ERROR_LOG_LEVEL;
using std::chrono::microseconds;
using test::Eventually;
using namespace testing;
using vosk::test::LogCapture;
using enum defs::VoskControlMode;

constexpr std::size_t MANAGED_MODES = 2;
constexpr microseconds SEND_DELAY{1500};
constexpr AtomClk::time_point APPLIED_TIME{microseconds{77}};
constexpr float NAN_F = std::numeric_limits<float>::quiet_NaN();

template <class T, class... Args>
std::shared_ptr<T> Get(Args... args) {
    return DataSyncManager::GetInstance().GetOrRegisterDataSync<T>(typename T::InstanceTag{}, args...);
}

struct Opened : AoTasks {
    using AoTasks::AoTasks;
    using AoTasks::m_sample_id;
};

class AoTasksTest : public ::testing::Test {
protected:
    AoTasksTest() {
        DataSyncManager::CreateInstance();
        RuntimeMonitor::CreateInstance(gim::Config{});
        ResetControlState();
        // Actuators 0 and 1 follow modes 0 and 1, the others stand still.
        std::vector<float> m2p(M4_CMD_SIZE * MANAGED_MODES);
        m2p[0] = 1.0F;
        m2p[3] = 1.0F;
        WriteM2p(m2p, MANAGED_MODES);
    }

    ~AoTasksTest() override {
        if (m_thread) m_thread->Stop();
    }

    void WriteM2p(const std::vector<float>& matrix, std::size_t modes) const {
        common::Fits::WriteImg<float>(common::Fits::FitsFileWrite(m_m2p, true, {}), matrix,
                                      {modes, M4_CMD_SIZE});
    }

    // Far thresholds: what is commanded is what goes out.
    std::string Config(const std::string& response_timeout) const {
        return "cfg: {busy: false, m4_send_delay: \"1500 us\", m4_response_timeout: \"" + response_timeout +
               "\", gpao_highest_mode: 10, delta_scaling: true, managed_modes: 2, m2p_path: " + m_m2p +
               ", threshold_velocity: 1e6, threshold_gap: 1e6}";
    }

    void Start(const std::string& response_timeout = "20000 ms") {
        m_thread = std::make_unique<Opened>(test::CfgOf(Config(response_timeout)));
        m_ins = Get<AoTasksInsDataSync>(false);
        m_fs = Get<AoTasksFsDataSync>(false);
        m_m4_output = Get<M4OutputDataSync>(false);
        m_m4_input = Get<M4InputDataSync>(false);
        m_ao_applied = Get<AoM4SetpointAppliedDataSync>();
        m_fs_ref = Get<FsRefDataSync>();
        m_gpao_applied = Get<GpaoM4SetpointAppliedDataSync>();
        m_thread->Start().get();
    }

    // The same, with the first of the two commands of a handover behind it: the next one goes to M4.
    void StartDrivenBy(defs::VoskControlMode mode, const std::string& response_timeout = "20000 ms") {
        Start(response_timeout);
        VoskTelescopeStateManager::SetCurrentControlMode(mode);
        ASSERT_TRUE(RunCycle(0.0F));
    }

    // A valid command, each element `value`.
    void SendCommand(float value, AtomClk::time_point time = AtomClk::now()) {
        defs::AoWavefrontCmdStream::Payload payload;
        payload.command.fill(value);
        defs::AoWavefrontCmdStream::ExtInfo::Header header;
        header.flags = defs::AoWavefrontCmdStream::ExtInfo::VALID;
        m_ins->SetData(payload, header, ++m_command_id, time);
    }

    // One that nobody answers.
    bool RunCycle(float value) {
        SendCommand(value);
        return CycleEnds();
    }

    // One whose setpoint, of the ID, M4 answers.
    bool RunCycle(float command, float applied, std::uint32_t id) {
        SendCommand(command);
        return SetpointArrives() && AnswerUntilCycleEnds(applied, id);
    }

    bool CycleEnds() {
        return Eventually([this] { return IsCycleOver(); });
    }

    // Whether the last acts of a cycle were done since this was last so.
    bool IsCycleOver() {
        if (!m_fs_ref->IsNewData() || !m_gpao_applied->IsNewData()) return false;
        m_fs_ref->ClearNewData();
        m_gpao_applied->ClearNewData();
        return true;
    }

    bool SetpointArrives() {
        const bool arrived = Eventually([this] { return m_m4_output->IsNewData(); });
        m_m4_output->ClearNewData();
        return arrived;
    }

    // M4's answer, repeated: one that comes before AoTasks has begun to wait is forgotten.
    bool AnswerUntilCycleEnds(float value, std::uint32_t id) {
        return Eventually([&] {
            Answer(value, id);
            return IsCycleOver();
        });
    }

    static const CommandCounts& Counts() { return *RuntimeMonitor::GetInstance().m_command_counts; }

    void Answer(float value, std::uint32_t id) {
        defs::M4SetpointApplied::Payload payload;
        payload.setpoint.fill(value);
        payload.applied_time = APPLIED_TIME;
        m_m4_input->SetData(payload, id, AtomClk::now());
    }

    vosk::test::TempDir m_directory;
    std::string m_m2p = m_directory / "m2p.fits";
    std::unique_ptr<Opened> m_thread;
    std::shared_ptr<AoTasksInsDataSync> m_ins;
    std::shared_ptr<AoTasksFsDataSync> m_fs;
    std::shared_ptr<M4OutputDataSync> m_m4_output;
    std::shared_ptr<M4InputDataSync> m_m4_input;
    std::shared_ptr<AoM4SetpointAppliedDataSync> m_ao_applied;
    std::shared_ptr<FsRefDataSync> m_fs_ref;
    std::shared_ptr<GpaoM4SetpointAppliedDataSync> m_gpao_applied;
    std::uint32_t m_command_id = 0;
};

TEST_F(AoTasksTest, KeepsSetpointsBackUntilTheHandoverIsOver) {
    const LogCapture log;
    StartDrivenBy(INS_DRIVEN_CASCADE);
    EXPECT_EQ(VoskHandoverManager::GetInstance().GetState(), VoskHandoverManager::HANDOVER_WAIT_NEXT_INS_CMD);
    EXPECT_FALSE(m_m4_output->IsNewData());
    // The cycle is told to the AO output all the same, as one without a source.
    EXPECT_EQ(m_ao_applied->GetData().header.status, 0);
    EXPECT_TRUE(Eventually(
        [&] { return !log.Texts(", m4_cmd_send = +[not sent], send_ao_m4_applied = +").empty(); }));

    // The command that completes the handover is the first that reaches M4.
    ASSERT_TRUE(RunCycle(2.0F, 2.0F, 1));
    EXPECT_EQ(m_m4_output->GetSampleId(), 1U);
    EXPECT_EQ(m_m4_output->GetData().setpoint[2], 2.0F);
}

TEST_F(AoTasksTest, PlansSendTimeFromTheCommandAndPublishesWhatM4Applied) {
    StartDrivenBy(INS_DRIVEN_CASCADE);
    const auto command_time = AtomClk::now();
    SendCommand(3.0F, command_time);
    ASSERT_TRUE(SetpointArrives());
    EXPECT_EQ(m_m4_output->GetData().send_time, command_time + SEND_DELAY);
    EXPECT_FALSE(m_fs_ref->IsNewData());  // the cycle waits for the answer

    ASSERT_TRUE(AnswerUntilCycleEnds(2.5F, 1));
    const auto applied = m_ao_applied->GetData();
    EXPECT_EQ(applied.payload.applied[4865], 2.5F);
    EXPECT_EQ(applied.header.status, 0x500);  // cascade, applied time given
    EXPECT_EQ(AtomClk::time_point{applied.header.applied_time}, APPLIED_TIME);
    EXPECT_EQ(m_ao_applied->GetSampleId(), 1U);
    EXPECT_EQ(m_gpao_applied->GetData().setpoint[0], 2.5F);
    EXPECT_EQ(m_fs_ref->GetData(), (defs::FsRef{{3.0F, 3.0F}, {3.0F, 3.0F}, {2.5F, 2.5F}}));
}

TEST_F(AoTasksTest, MissingAndLateAnswersCountAsZero) {
    const LogCapture log;
    StartDrivenBy(INS_DRIVEN_CASCADE, "1 ms");
    const auto& ao_applied = m_ao_applied->GetDataRef();
    for (const std::uint32_t id : {1U, 2U}) {
        ASSERT_TRUE(RunCycle(4.0F));
        EXPECT_EQ(m_gpao_applied->GetData().setpoint, (std::array<float, M4_CMD_SIZE>{}));
        EXPECT_EQ(ao_applied.payload.applied, (std::array<float, defs::INS_CMD_SIZE>{}));
        EXPECT_EQ(ao_applied.header.status, 0x400);
        EXPECT_EQ(AtomClk::time_point{ao_applied.header.applied_time}, AtomClk::time_point{});
        EXPECT_EQ(m_fs_ref->GetData().m4_tt, defs::FloatVectorTT{});
        EXPECT_THAT(log.Texts(", sample ID = " + std::to_string(id), ERROR_LOG_LEVEL),
                    ElementsAre(HasSubstr("no 'am:setpoint_applied' response from M4 at ")));
        Answer(4.0F, id);  // too late: the next cycle forgets it
    }
    EXPECT_EQ(Counts().missing_answers, 2U);
}

// M4Input notifies after it has given the lock back: the notification of one answer may come when the next
// one is awaited.
TEST_F(AoTasksTest, ALateNotificationIsNoAnswer) {
    StartDrivenBy(INS_DRIVEN_CASCADE);
    SendCommand(2.0F);
    ASSERT_TRUE(SetpointArrives());
    for (int i = 0; i < 20; ++i) {
        m_m4_input->SetDataReady();
        ASSERT_TRUE(Eventually([this] { return !m_m4_input->IsDataReady(); }));
    }
    EXPECT_FALSE(m_fs_ref->IsNewData());  // the cycle still waits
    ASSERT_TRUE(AnswerUntilCycleEnds(2.0F, 1));
    EXPECT_EQ(m_gpao_applied->GetData().setpoint[0], 2.0F);
}

TEST_F(AoTasksTest, AClockThatIsSetBackEndsTheCycleWithoutAnAnswer) {
    const AtomClk::time_point start{std::chrono::hours{1}};
    atomclk::ManualClock clock{start};
    StartDrivenBy(INS_DRIVEN_CASCADE);
    SendCommand(2.0F);
    ASSERT_TRUE(SetpointArrives());
    clock.Set(start - std::chrono::seconds{37});
    ASSERT_TRUE(CycleEnds());
    EXPECT_EQ(Counts().missing_answers, 1U);

    SendCommand(8.0F, start);  // dated by the clock before the step: its send time is far away now
    ASSERT_TRUE(CycleEnds());
    EXPECT_FALSE(m_m4_output->IsNewData());
    EXPECT_EQ(Counts().late_setpoints, 1U);

    ASSERT_TRUE(RunCycle(3.0F, 3.0F, 2));
    EXPECT_EQ(m_gpao_applied->GetData().setpoint[0], 3.0F);
    m_thread->Stop();
}

// As a change of mode may leave it, when it meets a cycle.
TEST_F(AoTasksTest, ACommandWhoseSourceDoesNotFitTheModeStaysFromM4) {
    VoskTelescopeStateManager::Reset();  // the handover does not hear of the mode
    VoskTelescopeStateManager::SetCurrentControlMode(INS_DRIVEN_CASCADE);
    VoskHandoverManager::GetInstance().SetM4CmdSource(defs::AoCommandSource::CCS);
    Start();
    ASSERT_TRUE(RunCycle(5.0F));
    EXPECT_FALSE(m_m4_output->IsNewData());
    EXPECT_EQ(Counts().unfit_source_cycles, 1U);
}

TEST_F(AoTasksTest, AnAnswerThatCannotBeUsedCountsAsZeroAndIsNamed) {
    const LogCapture log;
    StartDrivenBy(INS_DRIVEN_CASCADE);
    ASSERT_TRUE(RunCycle(1.0F, 1.0F, 99));
    EXPECT_EQ(m_fs_ref->GetData().m4_tt, defs::FloatVectorTT{});
    ASSERT_TRUE(RunCycle(1.0F, NAN_F, 2));
    EXPECT_EQ(m_fs_ref->GetData().m4_tt, defs::FloatVectorTT{});
    EXPECT_THAT(log.Texts("", ERROR_LOG_LEVEL),
                ElementsAre(HasSubstr("with different sample ID then M4 command sent: 1 vs 99"),
                            HasSubstr("holds values that are not finite, sample ID = 2")));
    ASSERT_TRUE(RunCycle(2.0F, 2.0F, 3));
    EXPECT_EQ(m_m4_output->GetData().setpoint[2], 2.0F);
}

TEST_F(AoTasksTest, ASetpointThatIsNotFiniteIsKeptFromM4) {
    const LogCapture log;
    StartDrivenBy(INS_DRIVEN_CASCADE);
    ASSERT_TRUE(RunCycle(1.0F, 1.0F, 1));
    // An infinite value doesn't show in the setpoint: the limits make zeroes of it.
    for (const float tip : {NAN_F, std::numeric_limits<float>::infinity()}) {
        m_fs->SetData(tip, 0.0F, 1U, AtomClk::now());
        ASSERT_TRUE(RunCycle(2.0F));  // nobody is waited for
        EXPECT_FALSE(m_m4_output->IsNewData());
    }
    const auto kept_back = StartsWith(
        "AoTasks: the setpoint or its actuator positions are not finite, nothing is sent to M4 at ");
    EXPECT_THAT(log.Texts("", ERROR_LOG_LEVEL), ElementsAre(kept_back, kept_back));
    EXPECT_EQ(Counts().kept_back_setpoints, 2U);
    EXPECT_EQ(m_gpao_applied->GetData().setpoint[0], 1.0F);  // what M4 still has
    EXPECT_EQ(m_ao_applied->GetData().header.status, 0);

    m_fs->SetData(0.5F, 0.0F, 2U, AtomClk::now());
    ASSERT_TRUE(RunCycle(3.0F, 3.0F, 2));
    EXPECT_EQ(m_m4_output->GetSampleId(), 2U);
    EXPECT_EQ(m_m4_output->GetData().setpoint[0], 0.5F);
}

TEST_F(AoTasksTest, SampleIdsWrap) {
    StartDrivenBy(INS_DRIVEN_CASCADE);
    m_thread->m_sample_id = 0xFFFFFFFF;  // the thread waits for input
    ASSERT_TRUE(RunCycle(1.0F, 5.0F, 0));
    EXPECT_EQ(m_m4_output->GetSampleId(), 0U);
    EXPECT_EQ(m_gpao_applied->GetData().setpoint[0], 5.0F);
}

TEST_F(AoTasksTest, ReferenceShapeIsWhatM4LastApplied) {
    StartDrivenBy(INS_DRIVEN_CASCADE);
    ASSERT_TRUE(RunCycle(1.0F, 7.0F, 1));
    // Back and forth again: the next handover takes 7 as the shape to which commands are added.
    VoskTelescopeStateManager::SetCurrentControlMode(TEL_DRIVEN);
    VoskTelescopeStateManager::SetCurrentControlMode(INS_DRIVEN_CASCADE);
    ASSERT_TRUE(RunCycle(0.0F));
    ASSERT_TRUE(RunCycle(1.0F, 8.0F, 2));
    EXPECT_EQ(m_m4_output->GetData().setpoint[2], 8.0F);
    EXPECT_EQ(m_m4_output->GetData().setpoint[M4_CMD_SIZE - 1], 7.0F);  // all of M4, not only the modes
    EXPECT_EQ(m_fs_ref->GetData().m4_tt, (defs::FloatVectorTT{1.0F, 1.0F}));
}

TEST_F(AoTasksTest, TelescopeCyclesLeaveOnTheGridOfM4Output) {
    Start();
    m_m4_output->send_interval = std::chrono::milliseconds{2};
    m_m4_output->send_offset = microseconds{250};
    const auto before = AtomClk::now();
    m_fs->SetData(0.5F, 0.25F, 1U, AtomClk::now());
    ASSERT_TRUE(SetpointArrives());
    const auto data = m_m4_output->GetData();
    EXPECT_EQ((data.send_time.time_since_epoch() - microseconds{250}) % std::chrono::milliseconds{2},
              AtomClk::duration::zero());
    EXPECT_GE(data.send_time, before + SEND_DELAY);
    EXPECT_EQ(data.setpoint[0], 0.5F);
    EXPECT_EQ(data.setpoint[1], 0.25F);
    ASSERT_TRUE(AnswerUntilCycleEnds(0.0F, 1));
    EXPECT_EQ(m_ao_applied->GetData().header.status, 0x300);
}

TEST_F(AoTasksTest, GpaoPacesTheCycleInItsModes) {
    Start();
    VoskTelescopeStateManager::SetCurrentControlMode(TEL_DRIVEN_WITH_GPAO_TT);
    GpaoM4SetpointData command;
    command.command.fill(1.25F);
    Get<AoTasksGpaoDataSync>(false)->SetData(command, 1U, AtomClk::now());
    ASSERT_TRUE(SetpointArrives());
    EXPECT_EQ(m_m4_output->GetData().setpoint[0], 1.25F);
    ASSERT_TRUE(AnswerUntilCycleEnds(1.25F, 1));
    EXPECT_EQ(m_ao_applied->GetData().header.status, 0x300);
}

TEST_F(AoTasksTest, SequentialModeTellsItsSourceAndClearsTheReferenceItUsed) {
    StartDrivenBy(INS_DRIVEN_SEQUENTIAL);
    ASSERT_TRUE(RunCycle(3.0F, 3.0F, 1));
    EXPECT_EQ(m_m4_output->GetData().setpoint[0], 3.0F);
    EXPECT_EQ(m_fs_ref->GetData().tt_ref, defs::FloatVectorTT{});
    EXPECT_EQ(m_ao_applied->GetData().header.status, 0x900);
}

TEST_F(AoTasksTest, HighOrderCascadeEndsTheThreadOnceSomebodyCommands) {
    const LogCapture log;
    StartDrivenBy(INS_DRIVEN_CASCADE);
    VoskTelescopeStateManager::SetCurrentControlMode(HIGH_ORDER_CASCADE);
    m_fs->SetData(0.5F, 0.25F, 1U, AtomClk::now());  // thrown away by the handback
    ASSERT_TRUE(CycleEnds());
    EXPECT_FALSE(m_m4_output->IsNewData());
    m_fs->SetData(0.5F, 0.25F, 2U, AtomClk::now());
    ASSERT_TRUE(SetpointArrives());
    EXPECT_TRUE(Eventually([&] {
        Answer(0.0F, 1);
        return log.Has(
            ERROR_LOG_LEVEL,
            "Thread AoTasks, caught an excepion, details = Invalid control mode and/or AO command source.");
    }));
}

TEST_F(AoTasksTest, StopEndsTheWaitForInputAndTheWaitForM4) {
    StartDrivenBy(INS_DRIVEN_CASCADE, "500 ms");
    m_thread->Stop();
    SendCommand(9.0F);  // is no news to the next run
    m_thread->Start().get();

    // The cycle that a stop interrupts is finished without an answer: the reference record still goes out.
    m_ao_applied->ClearNewData();
    SendCommand(2.0F);
    ASSERT_TRUE(SetpointArrives());
    EXPECT_EQ(m_m4_output->GetData().setpoint[2], 2.0F);
    m_thread->Stop();
    EXPECT_TRUE(m_fs_ref->IsNewData());
    EXPECT_FALSE(m_ao_applied->IsNewData());
}

TEST_F(AoTasksTest, RefusesAMatrixThatIsNotThereOrOfAnotherShape) {
    const auto refusal = [this] {
        return vosk::test::TextOf<std::runtime_error>([this] { AoTasks{test::CfgOf(Config("1 ms"))}; });
    };
    WriteM2p(std::vector<float>(3 * M4_CMD_SIZE), 3);
    EXPECT_THAT(refusal(), testing::HasSubstr("(wanted: NAXIS1 = 2, NAXIS2 = 5352; found: NAXIS1 = 3,"));
    std::filesystem::remove(m_m2p);
    EXPECT_TRUE(refusal().starts_with("ERR: Unable to load M2P FITS file: FileSystem: "));
}

}  // namespace
}  // namespace vosk::lumo
