#include "handoverBench.hpp"

#include <vosk/test/logCapture.hpp>
#include <vosk/test/support.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using vosk::lumo::HandoverBench;
using vosk::test::At;
using vosk::test::LogCapture;
using enum vosk::defs::VoskControlMode;
using enum vosk::defs::AoCommandSource;
using enum vosk::lumo::VoskHandoverManager::State;

namespace {

constexpr auto INFO = log4cplus::INFO_LOG_LEVEL;
constexpr auto DEBUG = log4cplus::DEBUG_LOG_LEVEL;

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

TEST_F(Handover, GoesToTheInstrumentAndBackInStepsAndLogsEach) {
    const LogCapture log;
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

    const std::string prefix = "HandoverStateManager";
    std::vector<LogCapture::Line> lines;
    for (const auto& line : log.Lines()) {
        if (line.text.starts_with(prefix)) lines.push_back({line.level, line.text.substr(prefix.size())});
    }
    const std::vector<LogCapture::Line> expected{
        {INFO, "::SetM4CmdSource(): CmdSource change OFF -> CCS/TEL"},
        {DEBUG, ": initialize M4 cmd source, CCS has control"},
        {INFO, "::SetM4CmdSource(): CmdSource change CCS/TEL -> NONE"},
        {INFO, ": starting handover sequence, update M4 reference shape"},
        {INFO, ": updated M4 reference shape, wait for a valid command from INS"},
        {INFO, ": handover sequence, received first valid command from INS, discarding..."},
        {INFO, "::SetM4CmdSource(): CmdSource change NONE -> INS"},
        {DEBUG, ": handover completed, INS has control"},
        {INFO, "::SetM4CmdSource(): CmdSource change INS -> NONE"},
        {INFO, ": handback to CCS started, waiting for the first commands"},
        {INFO, ": handback sequence, received first command from CCS, discarding..."},
        {INFO, "::SetM4CmdSource(): CmdSource change NONE -> CCS/TEL"},
        {DEBUG, ": handback completed, CCS has control"}};
    EXPECT_EQ(lines, expected);
}

// The observers, which report the change complete, run before its record opens: the flag stays up until the
// next handover ends.
TEST_F(Handover, VariantsOfAModeNeedNoHandoverAndLeaveTheChangeOpen) {
    LogCapture log;
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
    EXPECT_EQ(log.Count(INFO, "HandoverStateManager: changing control mode variant, no handover/handback"),
              2);
}

TEST_F(Handover, AModeChangeInTheMiddleStartsTheOtherSequence) {
    HandoverBench::SetMode(INS_DRIVEN_SEQUENTIAL);
    m_manager.RegisterM4RefShapeUpdate();
    HandoverBench::SetMode(TEL_DRIVEN);
    ExpectAt(HANDBACK_WAIT_CCS_CMD, NONE, true);
    HandoverBench::SetMode(INS_DRIVEN_SEQUENTIAL);
    ExpectAt(HANDOVER_UPDATE_REF_SHAPE, NONE, true);
}

TEST_F(Handover, TimesTheFirstCyclesOfEachHandoverOnce) {
    LogCapture log;
    atomclk::ManualClock clock{At(1ms)};
    HandoverBench::SetMode(INS_DRIVEN_SEQUENTIAL);
    m_bench.RunCycle(true, At(1500us));
    m_bench.RunCycle(false, At(2500us));
    m_bench.RunCycle(true, At(3500us));
    m_bench.RunCycle(true, At(4500us));
    const auto stats = [](const char* none, const char* ins) {
        return std::string{"\t-> Handover completed:\n\t\tTime to NONE cmd = "} + none +
               "\n\t\tTime to INS cmd = " + ins;
    };
    EXPECT_EQ(log.Count(DEBUG, stats("500 us", "2500 us")), 1);

    clock.Set(At(10ms));
    HandoverBench::SetMode(TEL_DRIVEN);
    m_bench.RunCycle(true, At(10'500us));  // telescope cycles aren't timed
    HandoverBench::SetMode(INS_DRIVEN_SEQUENTIAL);
    m_bench.RunCycle(true, At(11ms));
    m_bench.RunCycle(true, At(12ms));
    EXPECT_EQ(log.Count(DEBUG, stats("1000 us", "2000 us")), 1);
}

TEST_F(Handover, ASourceThatDoesNotFitTheModeCountsAsNone) {
    struct Case {
        vosk::defs::VoskControlMode mode;
        vosk::defs::AoCommandSource source;
        vosk::defs::AoCommandSource expected;
    };
    for (const auto& [mode, source, expected] :
         {Case{TEL_DRIVEN, INS, NONE}, Case{TEL_DRIVEN, CCS, CCS}, Case{TEL_DRIVEN_WITH_GPAO_TT, INS, NONE},
          Case{HIGH_ORDER_CASCADE, INS, INS}, Case{HIGH_ORDER_CASCADE_WITH_GPAO_TT, INS, INS},
          Case{INS_DRIVEN_CASCADE, CCS, NONE}, Case{INS_DRIVEN_CASCADE, INS, INS},
          Case{INS_DRIVEN_SEQUENTIAL, CCS, NONE}, Case{INS_DRIVEN_SEQUENTIAL, OFF, OFF}}) {
        m_manager.SetM4CmdSource(source);
        EXPECT_EQ(m_manager.SourceOfCycle(mode), expected) << static_cast<int>(mode);
    }
}

TEST_F(Handover, AfterAHundredCyclesWithoutASourceTheModeIsToBeSetAgain) {
    const auto& counts = *vosk::lumo::RuntimeMonitor::GetInstance().m_command_counts;
    const auto unfit = counts.unfit_source_cycles.load();
    const auto failed = counts.failed_mode_changes.load();
    const LogCapture log;
    m_manager.SetM4CmdSource(INS);  // where a race between a change of mode and a cycle may leave it
    for (int i = 0; i < 99; ++i) m_bench.RunCycle();
    EXPECT_FALSE(m_manager.IsModeToBeSetAgain());
    for (int i = 0; i < 99; ++i) m_bench.RunCycle();
    EXPECT_TRUE(m_manager.IsModeToBeSetAgain());
    EXPECT_EQ(counts.unfit_source_cycles - unfit, 198U);
    EXPECT_EQ(counts.failed_mode_changes - failed, 1U);
    EXPECT_EQ(
        log.Count(log4cplus::WARN_LOG_LEVEL,
                  "HandoverStateManager: nobody has commanded M4 for 100 cycles, the control mode is to "
                  "be set again"),
        1);
    HandoverBench::SetMode(INS_DRIVEN_CASCADE);  // the remedy, which may fail as well
    EXPECT_FALSE(m_manager.IsModeToBeSetAgain());
    for (int i = 0; i < 100; ++i) m_bench.RunCycle(false);
    EXPECT_TRUE(m_manager.IsModeToBeSetAgain());
    m_bench.RunCycle();
    EXPECT_EQ(m_bench.RunCycle(), INS);
    EXPECT_FALSE(m_manager.IsModeToBeSetAgain());
}

TEST_F(Handover, AnUnknownSourceIsStoredBeforeItThrows) {
    const auto unknown = static_cast<vosk::defs::AoCommandSource>(4);
    EXPECT_THROW(m_manager.SetM4CmdSource(unknown), std::runtime_error);
    EXPECT_EQ(m_manager.GetM4CmdSource(), unknown);
}

TEST_F(Handover, ResetStartsAnewAndHearsOfModesOnce) {
    HandoverBench::SetMode(INS_DRIVEN_CASCADE);
    m_bench.RunCycle();
    LogCapture log;
    vosk::lumo::ResetControlState();
    EXPECT_EQ(m_manager.GetState(), IDLE);
    EXPECT_EQ(m_manager.GetM4CmdSource(), OFF);
    HandoverBench::SetMode(INS_DRIVEN_CASCADE);
    EXPECT_EQ(log.Count(INFO, "HandoverStateManager: starting handover sequence, update M4 reference shape"),
              1);
}

}  // namespace
