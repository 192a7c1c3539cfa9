// AoTasks as a thread between exchange objects: the test plays the instrument, M4Output and M4.

#include "loopBench.hpp"

#include <lumolib/aoTasks.hpp>

namespace vosk::lumo {
namespace {

using namespace test;

constexpr AtomClk::time_point APPLIED_TIME{microseconds{77}};
constexpr float NAN_F = std::numeric_limits<float>::quiet_NaN();

class AoTasksTest : public LoopTest {
protected:
    ~AoTasksTest() override {
        if (m_thread) m_thread->Stop();
    }

    void Start(const std::string& response_timeout = "20000 ms") {
        // Actuators 0 and 1 follow modes 0 and 1, the others stand still.
        std::vector<float> m2p(M4_CMD_SIZE * 2);
        m2p[0] = 1.0F;
        m2p[3] = 1.0F;
        m_thread = std::make_unique<AoTasks>(
            CfgOf("cfg: " + AoTasksKeys(m_directory, m2p, "1500 us", response_timeout)));
        m_thread->Start().get();
    }

    // The same, with the first of the two commands of a handover behind it: the next one goes to M4.
    void StartDrivenBy(defs::VoskControlMode mode, const std::string& response_timeout = "20000 ms") {
        Start(response_timeout);
        SetMode(mode);
        ASSERT_TRUE(RunCycle(0.0F));
    }

    // A valid command, each element `value`.
    void SendCommand(float value, AtomClk::time_point time = AtomClk::now()) {
        defs::AoWavefrontCmdStream::Payload payload;
        payload.command.fill(value);
        const defs::AoWavefrontCmdStream::ExtInfo::Header header{defs::AoWavefrontCmdStream::ExtInfo::VALID,
                                                                 {}};
        m_ins->SetData(payload, header, ++m_command_id, time);
    }

    // A cycle that nobody answers.
    bool RunCycle(float value) {
        SendCommand(value);
        return CycleEnds();
    }

    // A cycle whose setpoint, of the ID, M4 answers.
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
    float Setpoint(std::size_t mode) const { return m_m4_output->GetData().setpoint[mode]; }

    void Answer(float value, std::uint32_t id) {
        defs::M4SetpointApplied::Payload payload;
        payload.setpoint.fill(value);
        payload.applied_time = APPLIED_TIME;
        m_m4_input->SetData(payload, id, AtomClk::now());
    }

    // M4's answer, repeated: one that comes before AoTasks has begun to wait is forgotten.
    bool AnswerUntilCycleEnds(float value, std::uint32_t id) {
        return Eventually([&] {
            Answer(value, id);
            return IsCycleOver();
        });
    }
    float Applied() const { return m_gpao_applied->GetData().setpoint[0]; }
    int Status() const { return m_ao_applied->GetData().header.status; }

    vosk::test::TempDir m_directory;
    std::unique_ptr<AoTasks> m_thread;
    std::shared_ptr<AoTasksInsDataSync> m_ins = Get<AoTasksInsDataSync>(false);
    std::shared_ptr<AoTasksFsDataSync> m_fs = Get<AoTasksFsDataSync>(false);
    std::shared_ptr<M4OutputDataSync> m_m4_output = Get<M4OutputDataSync>(false);
    std::shared_ptr<M4InputDataSync> m_m4_input = Get<M4InputDataSync>(false);
    std::shared_ptr<AoM4SetpointAppliedDataSync> m_ao_applied = Get<AoM4SetpointAppliedDataSync>();
    std::shared_ptr<FsRefDataSync> m_fs_ref = Get<FsRefDataSync>();
    std::shared_ptr<GpaoM4SetpointAppliedDataSync> m_gpao_applied = Get<GpaoM4SetpointAppliedDataSync>();
    std::uint32_t m_command_id = 0;
};

TEST_F(AoTasksTest, PlansSendTimeFromTheCommandAfterTheHandoverAndPublishesWhatM4Applied) {
    StartDrivenBy(INS_DRIVEN_CASCADE);
    EXPECT_FALSE(m_m4_output->IsNewData());
    EXPECT_EQ(Status(), 0);  // for the AO output, a cycle without a source
    const auto command_time = AtomClk::now();
    SendCommand(3.0F, command_time);
    ASSERT_TRUE(SetpointArrives());
    EXPECT_EQ(m_m4_output->GetData().send_time, command_time + microseconds{1500});
    EXPECT_FALSE(m_fs_ref->IsNewData());  // the cycle waits for the answer

    ASSERT_TRUE(AnswerUntilCycleEnds(2.5F, 1));
    const auto applied = m_ao_applied->GetData();
    EXPECT_EQ(applied.payload.applied[4865], 2.5F);
    EXPECT_EQ(applied.header.status, 0x500);  // cascade, applied time given
    EXPECT_EQ(AtomClk::time_point{applied.header.applied_time}, APPLIED_TIME);
    EXPECT_EQ(Applied(), 2.5F);
    EXPECT_EQ(m_fs_ref->GetData(), (defs::FsRef{{3.0F, 3.0F}, {3.0F, 3.0F}, {2.5F, 2.5F}}));
}

TEST_F(AoTasksTest, MissingAndLateAnswersCountAsZero) {
    StartDrivenBy(INS_DRIVEN_CASCADE, "1 ms");
    for (const std::uint32_t id : {1U, 2U}) {
        ASSERT_TRUE(RunCycle(4.0F));
        EXPECT_EQ(Counted().missing_answers, id);
        EXPECT_EQ(m_gpao_applied->GetData().setpoint, (std::array<float, M4_CMD_SIZE>{}));
        EXPECT_EQ(m_ao_applied->GetData().payload.applied, (std::array<float, defs::INS_CMD_SIZE>{}));
        EXPECT_EQ(Status(), 0x400);
        EXPECT_EQ(m_fs_ref->GetData().m4_tt, FloatVectorTT{});
        Answer(4.0F, id);  // too late: the next cycle forgets it
    }
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
    EXPECT_EQ(Applied(), 2.0F);
}

TEST_F(AoTasksTest, AClockThatIsSetBackEndsTheCycleWithoutAnAnswer) {
    atomclk::ManualClock clock{START};
    StartDrivenBy(INS_DRIVEN_CASCADE);
    SendCommand(2.0F);
    ASSERT_TRUE(SetpointArrives());
    clock.Set(START - seconds{37});
    ASSERT_TRUE(CycleEnds());
    EXPECT_EQ(Counted().missing_answers, 1U);

    SendCommand(8.0F, START);  // dated by the clock before the step: its send time is far away now
    ASSERT_TRUE(CycleEnds());
    EXPECT_FALSE(m_m4_output->IsNewData());
    EXPECT_EQ(Counted().late_setpoints, 1U);

    m_thread->Stop();
}

TEST_F(AoTasksTest, AnAnswerThatCannotBeUsedCountsAsZero) {
    StartDrivenBy(INS_DRIVEN_CASCADE);
    ASSERT_TRUE(RunCycle(1.0F, 1.0F, 99));
    EXPECT_EQ(m_fs_ref->GetData().m4_tt, FloatVectorTT{});
    ASSERT_TRUE(RunCycle(1.0F, NAN_F, 2));
    EXPECT_EQ(m_fs_ref->GetData().m4_tt, FloatVectorTT{});
    EXPECT_EQ(Counted().foreign_answers, 1U);
    EXPECT_EQ(Counted().missing_answers, 1U);
}

TEST_F(AoTasksTest, ASetpointThatIsNotFiniteIsKeptFromM4) {
    StartDrivenBy(INS_DRIVEN_CASCADE);
    ASSERT_TRUE(RunCycle(1.0F, 1.0F, 1));
    // An infinite value doesn't show in the setpoint: the limits make zeroes of it.
    for (const float tip : {NAN_F, std::numeric_limits<float>::infinity()}) {
        m_fs->SetData(tip, 0.0F, 1U, AtomClk::now());
        ASSERT_TRUE(RunCycle(2.0F));  // the cycle waits for no answer
        EXPECT_FALSE(m_m4_output->IsNewData());
    }
    EXPECT_EQ(Counted().kept_back_setpoints, 2U);
    EXPECT_EQ(Applied(), 1.0F);  // what M4 still has
    EXPECT_EQ(Status(), 0);

    m_fs->SetData(0.5F, 0.0F, 2U, AtomClk::now());
    ASSERT_TRUE(RunCycle(3.0F, 3.0F, 2));
    EXPECT_EQ(Setpoint(0), 0.5F);
}

TEST_F(AoTasksTest, ReferenceShapeIsWhatM4LastApplied) {
    StartDrivenBy(INS_DRIVEN_CASCADE);
    ASSERT_TRUE(RunCycle(1.0F, 7.0F, 1));
    // Back and forth again: the next handover takes 7 as the shape to which commands are added.
    SetMode(TEL_DRIVEN);
    SetMode(INS_DRIVEN_CASCADE);
    ASSERT_TRUE(RunCycle(0.0F));
    ASSERT_TRUE(RunCycle(1.0F, 8.0F, 2));
    EXPECT_EQ(Setpoint(2), 8.0F);
    EXPECT_EQ(Setpoint(M4_CMD_SIZE - 1), 7.0F);  // all of M4, not only the modes
    EXPECT_EQ(m_fs_ref->GetData().m4_tt, (FloatVectorTT{1.0F, 1.0F}));
}

TEST_F(AoTasksTest, TelescopeCyclesLeaveOnTheGridOfM4OutputAndGpaoPacesItsModes) {
    Start();
    m_m4_output->send_interval = milliseconds{2};
    m_m4_output->send_offset = microseconds{250};
    const auto before = AtomClk::now();
    m_fs->SetData(0.5F, 0.25F, 1U, before);
    ASSERT_TRUE(SetpointArrives());
    const auto send_time = m_m4_output->GetData().send_time;
    EXPECT_EQ((send_time.time_since_epoch() - microseconds{250}) % milliseconds{2}, nanoseconds{0});
    EXPECT_GE(send_time, before + microseconds{1500});
    EXPECT_EQ(Setpoint(1), 0.25F);
    ASSERT_TRUE(AnswerUntilCycleEnds(0.0F, 1));
    EXPECT_EQ(Status(), 0x300);

    SetMode(TEL_DRIVEN_WITH_GPAO_TT);
    GpaoM4SetpointData command;
    command.command.fill(1.25F);
    Get<AoTasksGpaoDataSync>(false)->SetData(command, 1U, AtomClk::now());
    ASSERT_TRUE(SetpointArrives());
    EXPECT_EQ(Setpoint(0), 1.25F);
    ASSERT_TRUE(AnswerUntilCycleEnds(1.25F, 2));
}

TEST_F(AoTasksTest, SequentialModeClearsTheReferenceItUsedAndHighOrderCascadeEndsTheThread) {
    StartDrivenBy(INS_DRIVEN_SEQUENTIAL);
    ASSERT_TRUE(RunCycle(3.0F, 3.0F, 1));
    EXPECT_EQ(m_fs_ref->GetData().tt_ref, FloatVectorTT{});
    EXPECT_EQ(Status(), 0x900);
    SetMode(HIGH_ORDER_CASCADE);
    m_fs->SetData(0.5F, 0.25F, 1U, AtomClk::now());  // dropped by the handback
    ASSERT_TRUE(CycleEnds());
    EXPECT_FALSE(m_m4_output->IsNewData());
    m_fs->SetData(0.5F, 0.25F, 2U, AtomClk::now());
    ASSERT_TRUE(SetpointArrives());
    EXPECT_TRUE(Eventually([&] {
        Answer(0.0F, 2);
        return m_thread->HasEndedByItself();
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
    EXPECT_EQ(Setpoint(2), 2.0F);
    m_thread->Stop();
    EXPECT_TRUE(m_fs_ref->IsNewData());
    EXPECT_FALSE(m_ao_applied->IsNewData());
}

}  // namespace
}  // namespace vosk::lumo
