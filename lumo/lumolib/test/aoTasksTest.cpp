// AoTasks as a thread between exchange objects: the test plays the instrument, M4Output and M4.

#include "testSupport.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomclk/atomClk.hpp>
#include <filesystem>
#include <gim/config.hpp>
#include <limits>
#include <lumolib/aoTasks.hpp>
#include <lumolib/dataSyncManager.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/voskHandoverManager.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>
#include <memory>
#include <vosk/common/fits.hpp>
#include <vosk/common/testing/logCapture.hpp>

namespace vosk::lumo {
namespace {

using atomclk::AtomClk;
using common::LogCapture;
using defs::AoCommandSource;
using defs::M4_CMD_SIZE;
using defs::VoskControlMode;
using std::chrono::microseconds;
using test::Eventually;

constexpr std::size_t MANAGED_MODES = 2;
constexpr microseconds SEND_DELAY{1500};

template <class T, class... Args>
std::shared_ptr<T> Get(Args... args) {
    return DataSyncManager::GetInstance().GetOrRegisterDataSync<T>(typename T::InstanceTag{}, args...);
}

class AoTasksTest : public ::testing::Test {
protected:
    AoTasksTest() {
        DataSyncManager::CreateInstance();
        RuntimeMonitor::CreateInstance(gim::Config{});
        ResetControlState();
        std::filesystem::create_directories(m_directory);
        // Actuators 0 and 1 follow modes 0 and 1, the others stand still.
        std::vector<float> m2p(M4_CMD_SIZE * MANAGED_MODES);
        m2p[0] = 1.0F;
        m2p[3] = 1.0F;
        const auto file = common::Fits::FitsFileWrite(M2pPath(), true, {});
        common::Fits::WriteImg<float>(file, m2p, {MANAGED_MODES, M4_CMD_SIZE});
    }

    ~AoTasksTest() override {
        if (m_thread) m_thread->Stop();
        std::filesystem::remove_all(m_directory);
    }

    std::string M2pPath() const { return (m_directory / "m2p.fits").string(); }

    // Far thresholds: what is commanded is what goes out.
    std::string Config(const std::string& response_timeout) const {
        return "cfg: {busy: false, m4_send_delay: \"1500 us\", m4_response_timeout: \"" + response_timeout +
               "\", gpao_highest_mode: 10, delta_scaling: true, managed_modes: 2, m2p_path: " + M2pPath() +
               ", threshold_velocity: 1e6, threshold_gap: 1e6}";
    }

    void Start(const std::string& response_timeout = "20000 ms") {
        m_thread = std::make_unique<AoTasks>(test::CfgOf(Config(response_timeout)));
        m_ins = Get<AoTasksInsDataSync>(false);
        m_fs = Get<AoTasksFsDataSync>(false);
        m_m4_output = Get<M4OutputDataSync>(false);
        m_m4_input = Get<M4InputDataSync>(false);
        m_ao_applied = Get<AoM4SetpointAppliedDataSync>();
        m_fs_ref = Get<FsRefDataSync>();
        m_gpao_applied = Get<GpaoM4SetpointAppliedDataSync>();
        m_thread->Start().get();
    }

    // A valid command, each element `value`, and the wait until its cycle is over.
    void SendCommand(float value, AtomClk::time_point time = AtomClk::now()) {
        defs::AoWavefrontCmdStream::Payload payload;
        payload.command.fill(value);
        defs::AoWavefrontCmdStream::ExtInfo::Header header;
        header.flags = defs::AoWavefrontCmdStream::ExtInfo::VALID;
        m_ins->SetData(payload, header, ++m_command_id, time);
    }

    bool CycleEnds() {
        const bool ended = Eventually([this] { return m_fs_ref->IsNewData(); });
        m_fs_ref->ClearNewData();
        return ended;
    }

    bool RunCycle(float value) {
        SendCommand(value);
        return CycleEnds();
    }

    bool SetpointArrives() {
        const bool arrived = Eventually([this] { return m_m4_output->IsNewData(); });
        m_m4_output->ClearNewData();
        return arrived;
    }

    // M4's answer, repeated: one that comes before AoTasks has begun to wait is forgotten.
    bool AnswerUntilCycleEnds(float value, std::uint32_t id) {
        const bool ended = Eventually([&] {
            Answer(value, id);
            return m_fs_ref->IsNewData();
        });
        m_fs_ref->ClearNewData();
        return ended;
    }

    void Answer(float value, std::uint32_t id) {
        defs::M4SetpointApplied::Payload payload;
        payload.setpoint.fill(value);
        payload.applied_time = AtomClk::time_point{microseconds{77}};
        m_m4_input->SetData(payload, id, AtomClk::now());
    }

    std::filesystem::path m_directory =
        std::filesystem::temp_directory_path() / ("aoTasksTest." + std::to_string(::getpid()));
    std::unique_ptr<AoTasks> m_thread;
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
    Start();
    VoskTelescopeStateManager::SetCurrentControlMode(VoskControlMode::INS_DRIVEN_CASCADE);
    ASSERT_TRUE(RunCycle(1.0F));
    EXPECT_EQ(VoskHandoverManager::GetInstance().GetState(), VoskHandoverManager::HANDOVER_WAIT_NEXT_INS_CMD);
    EXPECT_FALSE(m_m4_output->IsNewData());
    // The cycle is told to the AO output all the same, as one without a source.
    EXPECT_EQ(m_ao_applied->GetData().header.status, 0);

    // The command that completes the handover is the first that reaches M4.
    SendCommand(2.0F);
    ASSERT_TRUE(SetpointArrives());
    EXPECT_EQ(m_m4_output->GetSampleId(), 1U);
    EXPECT_EQ(m_m4_output->GetDataRef().setpoint[2], 2.0F);
    EXPECT_TRUE(AnswerUntilCycleEnds(2.0F, 1));
}

TEST_F(AoTasksTest, PlansSendTimeFromTheCommandAndPublishesWhatM4Applied) {
    Start();
    VoskTelescopeStateManager::SetCurrentControlMode(VoskControlMode::INS_DRIVEN_CASCADE);
    ASSERT_TRUE(RunCycle(0.0F));
    const auto command_time = AtomClk::now();
    SendCommand(3.0F, command_time);
    ASSERT_TRUE(SetpointArrives());
    EXPECT_EQ(m_m4_output->GetDataRef().send_time, command_time + SEND_DELAY);
    EXPECT_FALSE(m_fs_ref->IsNewData());  // the cycle waits for the answer

    ASSERT_TRUE(AnswerUntilCycleEnds(2.5F, 1));
    ASSERT_TRUE(Eventually([this] { return m_gpao_applied->IsNewData(); }));
    const auto applied = m_ao_applied->GetData();
    EXPECT_EQ(applied.payload.applied[4865], 2.5F);
    EXPECT_EQ(applied.header.status, 0x500);  // cascade, applied time given
    EXPECT_EQ(AtomClk::time_point{applied.header.applied_time}, AtomClk::time_point{microseconds{77}});
    EXPECT_EQ(m_ao_applied->GetSampleId(), 1U);
    EXPECT_EQ(m_gpao_applied->GetData().setpoint[0], 2.5F);
    EXPECT_EQ(m_fs_ref->GetData(), (defs::FsRef{{3.0F, 3.0F}, {3.0F, 3.0F}, {2.5F, 2.5F}}));
}

TEST_F(AoTasksTest, MissingLateAndWrongAnswersCountAsZero) {
    const LogCapture log;
    Start("1 ms");
    VoskTelescopeStateManager::SetCurrentControlMode(VoskControlMode::INS_DRIVEN_CASCADE);
    ASSERT_TRUE(RunCycle(0.0F));
    ASSERT_TRUE(RunCycle(4.0F));  // nobody answers
    ASSERT_TRUE(Eventually([this] { return m_gpao_applied->IsNewData(); }));
    EXPECT_EQ(m_ao_applied->GetData().header.status, 0x400);  // no applied time
    EXPECT_EQ(m_fs_ref->GetData().m4_tt, defs::FloatVectorTT{});

    Answer(4.0F, 1);  // too late: the next cycle forgets it
    ASSERT_TRUE(RunCycle(5.0F));
    EXPECT_EQ(m_fs_ref->GetData().m4_tt, defs::FloatVectorTT{});

    std::size_t missing = 0;
    for (const auto& line : log.Lines()) {
        missing += line.level == log4cplus::ERROR_LOG_LEVEL &&
                   line.text.find("no 'am:setpoint_applied' response from M4 at ") != std::string::npos;
    }
    EXPECT_EQ(missing, 2U);
}

TEST_F(AoTasksTest, AnswerToAnotherSetpointIsRefusedByName) {
    const LogCapture log;
    Start();
    VoskTelescopeStateManager::SetCurrentControlMode(VoskControlMode::INS_DRIVEN_CASCADE);
    ASSERT_TRUE(RunCycle(0.0F));
    SendCommand(1.0F);
    ASSERT_TRUE(SetpointArrives());
    ASSERT_TRUE(AnswerUntilCycleEnds(1.0F, 99));
    EXPECT_EQ(m_fs_ref->GetData().m4_tt, defs::FloatVectorTT{});
    EXPECT_TRUE(Eventually([&] {
        for (const auto& line : log.Lines()) {
            if (line.text.ends_with("with different sample ID then M4 command sent: 1 vs 99")) return true;
        }
        return false;
    }));
}

TEST_F(AoTasksTest, ReferenceShapeIsWhatM4LastApplied) {
    Start();
    VoskTelescopeStateManager::SetCurrentControlMode(VoskControlMode::INS_DRIVEN_CASCADE);
    ASSERT_TRUE(RunCycle(0.0F));
    SendCommand(1.0F);
    ASSERT_TRUE(SetpointArrives());
    ASSERT_TRUE(AnswerUntilCycleEnds(7.0F, 1));
    // Back and forth again: the next handover takes 7 as the shape to which commands are added.
    VoskTelescopeStateManager::SetCurrentControlMode(VoskControlMode::TEL_DRIVEN);
    VoskTelescopeStateManager::SetCurrentControlMode(VoskControlMode::INS_DRIVEN_CASCADE);
    ASSERT_TRUE(RunCycle(0.0F));
    SendCommand(1.0F);
    ASSERT_TRUE(SetpointArrives());
    EXPECT_EQ(m_m4_output->GetDataRef().setpoint[2], 8.0F);
    EXPECT_EQ(m_m4_output->GetDataRef().setpoint[M4_CMD_SIZE - 1], 7.0F);  // all of M4, not only the modes
    ASSERT_TRUE(AnswerUntilCycleEnds(8.0F, 2));
    EXPECT_EQ(m_fs_ref->GetData().m4_tt, (defs::FloatVectorTT{1.0F, 1.0F}));
}

TEST_F(AoTasksTest, TelescopeCyclesLeaveOnTheGridOfM4Output) {
    Start();
    m_m4_output->send_interval = std::chrono::milliseconds{2};
    m_m4_output->send_offset = microseconds{250};
    const auto before = AtomClk::now();
    m_fs->SetData(0.5F, 0.25F, 1U, AtomClk::now());
    ASSERT_TRUE(SetpointArrives());
    EXPECT_EQ(VoskHandoverManager::GetInstance().GetM4CmdSource(), AoCommandSource::CCS);
    const auto data = m_m4_output->GetData();
    EXPECT_EQ((data.send_time.time_since_epoch() - microseconds{250}) % std::chrono::milliseconds{2},
              AtomClk::duration::zero());
    EXPECT_GE(data.send_time, before + SEND_DELAY);
    EXPECT_EQ(data.setpoint[0], 0.5F);
    EXPECT_EQ(data.setpoint[1], 0.25F);
    ASSERT_TRUE(AnswerUntilCycleEnds(0.0F, 1));
    EXPECT_EQ(m_ao_applied->GetData().header.status, 0x300);
}

TEST_F(AoTasksTest, HighOrderCascadeEndsTheThreadAfterTheSetpoint) {
    const LogCapture log;
    Start();
    VoskTelescopeStateManager::SetCurrentControlMode(VoskControlMode::HIGH_ORDER_CASCADE);
    m_fs->SetData(0.5F, 0.25F, 1U, AtomClk::now());
    ASSERT_TRUE(SetpointArrives());
    EXPECT_TRUE(Eventually([&] {
        Answer(0.0F, 1);
        return log.Has(
            log4cplus::ERROR_LOG_LEVEL,
            "Thread AoTasks, caught an excepion, details = Invalid control mode and/or AO command source.");
    }));
}

TEST_F(AoTasksTest, SequentialModeTellsItsSourceAndClearsTheReferenceItUsed) {
    Start();
    VoskTelescopeStateManager::SetCurrentControlMode(VoskControlMode::INS_DRIVEN_SEQUENTIAL);
    ASSERT_TRUE(RunCycle(0.0F));
    SendCommand(3.0F);
    ASSERT_TRUE(SetpointArrives());
    EXPECT_EQ(m_m4_output->GetDataRef().setpoint[0], 3.0F);
    ASSERT_TRUE(AnswerUntilCycleEnds(3.0F, 1));
    EXPECT_EQ(m_fs_ref->GetData().tt_ref, defs::FloatVectorTT{});
    EXPECT_EQ(m_ao_applied->GetData().header.status, 0x900);
}

TEST_F(AoTasksTest, GpaoPacesTheCycleInItsModes) {
    Start();
    VoskTelescopeStateManager::SetCurrentControlMode(VoskControlMode::TEL_DRIVEN_WITH_GPAO_TT);
    GpaoM4SetpointData command;
    command.command.fill(1.25F);
    Get<AoTasksGpaoDataSync>(false)->SetData(command, 1U, AtomClk::now());
    ASSERT_TRUE(SetpointArrives());
    EXPECT_EQ(m_m4_output->GetDataRef().setpoint[0], 1.25F);
    ASSERT_TRUE(AnswerUntilCycleEnds(1.25F, 1));
    EXPECT_EQ(m_ao_applied->GetData().header.status, 0x300);
}

TEST_F(AoTasksTest, AnAnswerThatIsNoNumberCountsAsZero) {
    Start();
    VoskTelescopeStateManager::SetCurrentControlMode(VoskControlMode::INS_DRIVEN_CASCADE);
    ASSERT_TRUE(RunCycle(0.0F));
    SendCommand(1.0F);
    ASSERT_TRUE(SetpointArrives());
    ASSERT_TRUE(AnswerUntilCycleEnds(std::numeric_limits<float>::quiet_NaN(), 1));
    EXPECT_EQ(m_fs_ref->GetData().m4_tt, defs::FloatVectorTT{});
    SendCommand(2.0F);
    ASSERT_TRUE(SetpointArrives());
    EXPECT_EQ(m_m4_output->GetDataRef().setpoint[2], 2.0F);
    ASSERT_TRUE(AnswerUntilCycleEnds(2.0F, 2));
}

TEST_F(AoTasksTest, TellsItsTimesAtTrace) {
    const LogCapture log;
    Start();
    VoskTelescopeStateManager::SetCurrentControlMode(VoskControlMode::INS_DRIVEN_CASCADE);
    ASSERT_TRUE(RunCycle(1.0F));  // nothing is sent yet
    EXPECT_TRUE(Eventually([&] {
        for (const auto& line : log.Lines()) {
            if (line.text.find("AoTasks processing timings (duration from t0):\n\tt0 = ") == 0 &&
                line.text.find(", m4_cmd_send = +[not sent], send_ao_m4_applied = +") != std::string::npos) {
                return line.level == log4cplus::TRACE_LOG_LEVEL;
            }
        }
        return false;
    }));
}

TEST_F(AoTasksTest, StopEndsTheWaitForInputAndTheWaitForM4) {
    Start("1 ms");
    m_thread->Stop();
    m_thread->Start().get();
    VoskTelescopeStateManager::SetCurrentControlMode(VoskControlMode::INS_DRIVEN_CASCADE);
    ASSERT_TRUE(RunCycle(0.0F));
    ASSERT_TRUE(RunCycle(1.0F));
    m_thread->Stop();

    // The cycle that a stop interrupts is finished without an answer: the reference record still goes out.
    Start("500 ms");
    m_m4_output->ClearNewData();
    SendCommand(2.0F);
    ASSERT_TRUE(SetpointArrives());
    m_ao_applied->ClearNewData();
    m_thread->Stop();
    EXPECT_TRUE(m_fs_ref->IsNewData());
    EXPECT_FALSE(m_ao_applied->IsNewData());
}

TEST_F(AoTasksTest, RefusesAMatrixOfAnotherShape) {
    std::filesystem::remove(M2pPath());
    EXPECT_THROW(
        {
            try {
                AoTasks{test::CfgOf(Config("1 ms"))};
            } catch (const std::runtime_error& error) {
                EXPECT_TRUE(
                    std::string{error.what()}.starts_with("ERR: Unable to load M2P FITS file: FileSystem: "));
                throw;
            }
        },
        std::runtime_error);
    const std::vector<float> wrong(3 * M4_CMD_SIZE);
    common::Fits::WriteImg<float>(common::Fits::FitsFileWrite(M2pPath(), true, {}), wrong, {3, M4_CMD_SIZE});
    try {
        AoTasks{test::CfgOf(Config("1 ms"))};
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(
            error.what(),
            "ERR: Unable to load M2P FITS file: , Fits: Image size does not match for the 0th dimension, "
            "expected: 2, acctual: 3");
    }
}

}  // namespace
}  // namespace vosk::lumo
