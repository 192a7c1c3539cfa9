#include "handoverBench.hpp"

#include <vosk/common/testing/logCapture.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

using vosk::common::LogCapture;
using vosk::lumo::HandoverBench;
using vosk::lumo::time_point;
using enum vosk::defs::VoskControlMode;
using enum vosk::defs::AoCommandSource;
using enum vosk::lumo::VoskHandoverManager::State;

namespace {

time_point At(std::int64_t microseconds) {
    return time_point{std::chrono::microseconds{microseconds}};
}

class Handover : public testing::Test {
protected:
    void ExpectAt(int state, vosk::defs::AoCommandSource source) const {
        EXPECT_EQ(m_bench.State(), state);
        EXPECT_EQ(m_bench.Source(), source);
        EXPECT_EQ(HandoverBench::Record().ao_cmd_source, source);
    }

    void GoToInsControl() {
        HandoverBench::SetMode(INS_DRIVEN_SEQUENTIAL);
        m_bench.RunCycles(2);
        ASSERT_EQ(m_bench.State(), INS_CONTROL);
    }

    HandoverBench m_bench;
};

TEST_F(Handover, FirstTelescopeCycleGivesControlWithoutAModeChange) {
    ExpectAt(IDLE, OFF);
    EXPECT_EQ(m_bench.RunCycle(), CCS);
    ExpectAt(IDLE, CCS);
    EXPECT_FALSE(HandoverBench::Record().mode_change_in_progress);
    EXPECT_EQ(HandoverBench::Record().control_mode, TEL_DRIVEN);
}

TEST_F(Handover, GoesToTheInstrumentAndBackInSteps) {
    m_bench.RunCycle();
    HandoverBench::SetMode(INS_DRIVEN_CASCADE);
    ExpectAt(HANDOVER_UPDATE_REF_SHAPE, NONE);
    EXPECT_TRUE(HandoverBench::Record().mode_change_in_progress);

    auto& manager = m_bench.m_manager;
    manager.RegisterInsCommandReceived(true, INS_DRIVEN_CASCADE);  // the reference shape comes first
    ExpectAt(HANDOVER_UPDATE_REF_SHAPE, NONE);
    manager.RegisterM4RefShapeUpdate();
    ExpectAt(HANDOVER_WAIT_INS_CMD, NONE);
    manager.RegisterInsCommandReceived(false, INS_DRIVEN_CASCADE);
    manager.RegisterM4RefShapeUpdate();
    ExpectAt(HANDOVER_WAIT_INS_CMD, NONE);
    manager.RegisterInsCommandReceived(true, INS_DRIVEN_CASCADE);
    ExpectAt(HANDOVER_WAIT_NEXT_INS_CMD, NONE);
    manager.RegisterInsCommandReceived(false, INS_DRIVEN_CASCADE);
    ExpectAt(HANDOVER_WAIT_NEXT_INS_CMD, NONE);
    EXPECT_TRUE(HandoverBench::Record().mode_change_in_progress);
    manager.RegisterInsCommandReceived(true, INS_DRIVEN_CASCADE);
    ExpectAt(INS_CONTROL, INS);
    EXPECT_FALSE(HandoverBench::Record().mode_change_in_progress);

    HandoverBench::SetMode(TEL_DRIVEN_WITH_GPAO_TT);
    ExpectAt(HANDBACK_WAIT_CCS_CMD, NONE);
    EXPECT_EQ(m_bench.RunCycle(), NONE);
    ExpectAt(HANDBACK_WAIT_NEXT_CCS_CMD, NONE);
    EXPECT_TRUE(HandoverBench::Record().mode_change_in_progress);
    EXPECT_EQ(m_bench.RunCycle(), CCS);
    ExpectAt(IDLE, CCS);
    EXPECT_FALSE(HandoverBench::Record().mode_change_in_progress);
}

// The observers, which report the change complete, run before its record opens: the flag stays up until the
// next handover ends.
TEST_F(Handover, VariantsOfAModeNeedNoHandoverAndLeaveTheChangeOpen) {
    LogCapture log;
    const std::string text = "HandoverStateManager: changing control mode variant, no handover/handback";
    m_bench.RunCycle();
    HandoverBench::SetMode(HIGH_ORDER_CASCADE);
    ExpectAt(IDLE, CCS);
    EXPECT_EQ(log.Count(log4cplus::INFO_LOG_LEVEL, text), 1);
    m_bench.RunCycles(3);
    EXPECT_TRUE(HandoverBench::Record().mode_change_in_progress);

    GoToInsControl();
    EXPECT_FALSE(HandoverBench::Record().mode_change_in_progress);
    HandoverBench::SetMode(INS_DRIVEN_CASCADE);
    ExpectAt(INS_CONTROL, INS);
    EXPECT_TRUE(HandoverBench::Record().mode_change_in_progress);
    EXPECT_EQ(log.Count(log4cplus::INFO_LOG_LEVEL, text), 2);
}

TEST_F(Handover, AModeChangeInTheMiddleStartsTheOtherSequence) {
    HandoverBench::SetMode(INS_DRIVEN_SEQUENTIAL);
    m_bench.m_manager.RegisterM4RefShapeUpdate();
    HandoverBench::SetMode(TEL_DRIVEN);
    ExpectAt(HANDBACK_WAIT_CCS_CMD, NONE);
    HandoverBench::SetMode(INS_DRIVEN_SEQUENTIAL);
    ExpectAt(HANDOVER_UPDATE_REF_SHAPE, NONE);
}

TEST_F(Handover, LogsEachStep) {
    LogCapture log;
    m_bench.RunCycle();
    GoToInsControl();
    HandoverBench::SetMode(HIGH_ORDER_CASCADE);
    m_bench.RunCycles(2);

    constexpr auto INFO = log4cplus::INFO_LOG_LEVEL;
    constexpr auto DEBUG = log4cplus::DEBUG_LOG_LEVEL;
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

TEST_F(Handover, TimesTheFirstCyclesOfEachHandoverOnce) {
    LogCapture log;
    atomclk::ManualClock clock{At(1000)};
    HandoverBench::SetMode(INS_DRIVEN_SEQUENTIAL);
    m_bench.RunCycle(true, At(1500));
    m_bench.RunCycle(false, At(2500));
    m_bench.RunCycle(true, At(3500));
    m_bench.RunCycle(true, At(4500));
    const auto stats = [](const char* none, const char* ins) {
        return std::string{"\t-> Handover completed:\n\t\tTime to NONE cmd = "} + none +
               "\n\t\tTime to INS cmd = " + ins;
    };
    EXPECT_EQ(log.Count(log4cplus::DEBUG_LOG_LEVEL, stats("500 us", "2500 us")), 1);

    clock.Set(At(10'000));
    HandoverBench::SetMode(TEL_DRIVEN);
    m_bench.RunCycle(true, At(10'500));  // telescope cycles aren't timed
    HandoverBench::SetMode(INS_DRIVEN_SEQUENTIAL);
    m_bench.RunCycle(true, At(11'000));
    m_bench.RunCycle(true, At(12'000));
    EXPECT_EQ(log.Count(log4cplus::DEBUG_LOG_LEVEL, stats("1000 us", "2000 us")), 1);
}

TEST_F(Handover, AnUnknownSourceIsStoredBeforeItThrows) {
    const auto unknown = static_cast<vosk::defs::AoCommandSource>(4);
    EXPECT_THROW(m_bench.m_manager.SetM4CmdSource(unknown), std::runtime_error);
    EXPECT_EQ(m_bench.Source(), unknown);
}

TEST_F(Handover, ResetStartsAnewAndHearsOfModesOnce) {
    GoToInsControl();
    LogCapture log;
    vosk::lumo::ResetControlState();
    EXPECT_EQ(m_bench.State(), IDLE);
    EXPECT_EQ(m_bench.Source(), OFF);
    HandoverBench::SetMode(INS_DRIVEN_CASCADE);
    EXPECT_EQ(m_bench.State(), HANDOVER_UPDATE_REF_SHAPE);
    EXPECT_EQ(log.Count(log4cplus::INFO_LOG_LEVEL,
                        "HandoverStateManager: starting handover sequence, update M4 reference shape"),
              1);
}

}  // namespace
