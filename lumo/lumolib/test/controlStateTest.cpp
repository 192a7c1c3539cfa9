// The control mode, who watches it, and the handover of M4 between its commanders.

#include "handoverBench.hpp"

#include <vosk/test/logCapture.hpp>
#include <vosk/test/support.hpp>

using namespace std::chrono_literals;
using vosk::lumo::HandoverBench;
using vosk::lumo::RuntimeMonitor;
using State = vosk::lumo::VoskTelescopeStateManager;
using vosk::test::At;
using vosk::test::LogCapture;
using enum vosk::defs::VoskControlMode;
using enum vosk::defs::AoCommandSource;
using enum vosk::lumo::VoskHandoverManager::State;

namespace {

class Handover : public testing::Test {
protected:
    void ExpectAt(int state, vosk::defs::AoCommandSource source, bool in_progress) const {
        EXPECT_EQ(m_manager.GetState(), state);
        EXPECT_EQ(m_manager.GetM4CmdSource(), source);
        EXPECT_EQ(HandoverBench::Record().ao_cmd_source, source);
        EXPECT_EQ(HandoverBench::Record().mode_change_in_progress, in_progress);
    }

    HandoverBench m_bench;
    vosk::lumo::VoskHandoverManager& m_manager = m_bench.manager;
};

TEST_F(Handover, GoesToTheInstrumentAndBackInSteps) {
    ExpectAt(IDLE, OFF, false);
    EXPECT_EQ(m_bench.RunCycle(), CCS);
    ExpectAt(IDLE, CCS, false);

    HandoverBench::SetMode(INS_DRIVEN_CASCADE);
    ExpectAt(HANDOVER_UPDATE_REF_SHAPE, NONE, true);
    m_manager.RegisterInsCommandReceived(true, INS_DRIVEN_CASCADE);  // the reference shape comes first
    ExpectAt(HANDOVER_UPDATE_REF_SHAPE, NONE, true);
    m_bench.RunCycle(false);
    m_bench.RunCycle(false);
    EXPECT_EQ(m_bench.ref_shape_updates, 1);
    ExpectAt(HANDOVER_WAIT_INS_CMD, NONE, true);
    m_bench.RunCycle(true);
    m_bench.RunCycle(false);
    ExpectAt(HANDOVER_WAIT_NEXT_INS_CMD, NONE, true);
    m_bench.RunCycle(true);
    m_manager.RegisterM4RefShapeUpdate();
    ExpectAt(INS_CONTROL, INS, false);

    HandoverBench::SetMode(TEL_DRIVEN_WITH_GPAO_TT);
    ExpectAt(HANDBACK_WAIT_CCS_CMD, NONE, true);
    EXPECT_EQ(m_bench.RunCycle(), NONE);
    ExpectAt(HANDBACK_WAIT_NEXT_CCS_CMD, NONE, true);
    EXPECT_EQ(m_bench.RunCycle(), CCS);
    ExpectAt(IDLE, CCS, false);
}

// The observers, which report the change complete, run before its record opens: the flag stays up until the
// next handover ends.
TEST_F(Handover, VariantsOfAModeNeedNoHandoverAndLeaveTheChangeOpen) {
    m_bench.RunCycle();
    HandoverBench::SetMode(HIGH_ORDER_CASCADE);
    m_bench.RunCycle();
    ExpectAt(IDLE, CCS, true);
    HandoverBench::SetMode(INS_DRIVEN_SEQUENTIAL);
    m_bench.RunCycle();
    m_bench.RunCycle();
    ExpectAt(INS_CONTROL, INS, false);
    HandoverBench::SetMode(INS_DRIVEN_CASCADE);
    ExpectAt(INS_CONTROL, INS, true);
}

TEST_F(Handover, TimesTheFirstCyclesOfEachHandoverOnce) {
    const LogCapture log;
    atomclk::ManualClock clock{At(1ms)};
    HandoverBench::SetMode(INS_DRIVEN_SEQUENTIAL);
    m_bench.RunCycle(true, At(1500us));
    m_bench.RunCycle(false, At(2500us));
    m_bench.RunCycle(true, At(3500us));
    m_bench.RunCycle(true, At(4500us));
    clock.Set(At(10ms));
    HandoverBench::SetMode(TEL_DRIVEN);
    m_bench.RunCycle(true, At(10'500us));  // telescope cycles aren't timed
    HandoverBench::SetMode(INS_DRIVEN_SEQUENTIAL);
    m_bench.RunCycle(true, At(11ms));
    m_bench.RunCycle(true, At(12ms));
    const auto times = log.Texts("Time to NONE");
    ASSERT_EQ(times.size(), 2U);
    EXPECT_THAT(times[0], testing::HasSubstr("INS cmd = 2500 us"));
    EXPECT_THAT(times[1], testing::HasSubstr("INS cmd = 2000 us"));
}

TEST_F(Handover, ASourceThatDoesNotFitTheModeCountsAsNone) {
    for (const auto& [mode, source, expected] : {std::tuple{TEL_DRIVEN, INS, NONE},
                                                 {TEL_DRIVEN, CCS, CCS},
                                                 {HIGH_ORDER_CASCADE, INS, INS},
                                                 {INS_DRIVEN_CASCADE, CCS, NONE},
                                                 {INS_DRIVEN_SEQUENTIAL, OFF, OFF}}) {
        m_manager.SetM4CmdSource(source);
        EXPECT_EQ(m_manager.SourceOfCycle(mode), expected) << static_cast<int>(mode);
    }
    const auto unknown = static_cast<vosk::defs::AoCommandSource>(4);
    EXPECT_THROW(m_manager.SetM4CmdSource(unknown), std::runtime_error);
    EXPECT_EQ(m_manager.GetM4CmdSource(), unknown);
}

TEST_F(Handover, AfterAHundredCyclesWithoutASourceTheModeIsToBeSetAgain) {
    const auto& failed = RuntimeMonitor::GetInstance().m_command_counts->failed_mode_changes;
    const auto failed_before = failed.load();
    m_manager.SetM4CmdSource(INS);  // where a race between a change of mode and a cycle may leave it
    for (int i = 0; i < 99; ++i) m_bench.RunCycle();
    EXPECT_FALSE(m_manager.IsModeToBeSetAgain());
    for (int i = 0; i < 99; ++i) m_bench.RunCycle();
    EXPECT_TRUE(m_manager.IsModeToBeSetAgain());
    EXPECT_EQ(failed - failed_before, 1U);
    HandoverBench::SetMode(INS_DRIVEN_CASCADE);  // the remedy, which may fail as well
    for (int i = 0; i < 100; ++i) m_bench.RunCycle(false);
    EXPECT_TRUE(m_manager.IsModeToBeSetAgain());
    m_bench.RunCycle();
    EXPECT_EQ(m_bench.RunCycle(), INS);
    EXPECT_FALSE(m_manager.IsModeToBeSetAgain());
}

TEST_F(Handover, AResetHearsOfModesOnce) {
    HandoverBench::SetMode(INS_DRIVEN_CASCADE);
    m_bench.RunCycle();
    vosk::lumo::ResetControlState();
    EXPECT_EQ(m_manager.GetState(), IDLE);
    EXPECT_EQ(m_manager.GetM4CmdSource(), OFF);
    const LogCapture log;
    HandoverBench::SetMode(INS_DRIVEN_CASCADE);
    EXPECT_EQ(log.Texts("starting handover sequence").size(), 1U);
}

TEST(TelescopeState, ObserversRunInOrderOnTheNewModeBeforeTheRecordChanges) {
    HandoverBench bench;
    std::vector<std::string> calls;
    const auto observe = [&calls](const char* name) {
        return [&calls, name](auto from, auto to) {
            EXPECT_EQ(State::GetCurrentControlMode(), to);
            EXPECT_EQ(HandoverBench::Record().control_mode, from);
            calls.push_back(name + vosk::to_string(from) + vosk::to_string(to));
        };
    };
    State::AttachControlModeObserver(observe("a:"));
    State::AttachControlModeObserver(observe("b:"));
    State::SetCurrentControlMode(HIGH_ORDER_CASCADE);
    EXPECT_EQ(HandoverBench::Record().control_mode, HIGH_ORDER_CASCADE);
    EXPECT_THAT(calls,
                testing::ElementsAre("a:TEL_DRIVENHIGH_ORDER_CASCADE", "b:TEL_DRIVENHIGH_ORDER_CASCADE"));
}

TEST(TelescopeState, AnUnknownModeReachesTheObserversAndAResetDropsThem) {
    const HandoverBench bench;
    int calls = 0;
    State::AttachControlModeObserver([&calls](auto, auto) { ++calls; });
    EXPECT_THROW(State::SetCurrentControlMode(static_cast<vosk::defs::VoskControlMode>(7)),
                 std::runtime_error);
    EXPECT_EQ(calls, 1);
    State::Reset();
    State::SetCurrentControlMode(HIGH_ORDER_CASCADE);
    EXPECT_EQ(calls, 1);
}

// The handover manager does so in the first cycle of AoTasks, while the host may be changing modes.
TEST(TelescopeState, AnObserverCanAttachWhileTheModeChanges) {
    constexpr int OBSERVERS = 200;
    HandoverBench bench;
    int calls = 0;  // observers run on this thread only
    std::thread attaching([&calls] {
        for (int i = 0; i < OBSERVERS; ++i)
            State::AttachControlModeObserver([&calls](auto, auto) { ++calls; });
    });
    for (int i = 0, most = 0; i < OBSERVERS; ++i, most = calls) {
        calls = 0;
        State::NotifyControlModeObservers(TEL_DRIVEN, HIGH_ORDER_CASCADE);
        EXPECT_GE(calls, most);  // none is lost again
    }
    attaching.join();
    calls = 0;
    State::NotifyControlModeObservers(TEL_DRIVEN, HIGH_ORDER_CASCADE);
    EXPECT_EQ(calls, OBSERVERS);
}

}  // namespace
