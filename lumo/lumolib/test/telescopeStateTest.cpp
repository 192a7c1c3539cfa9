#include <lumolib/voskTelescopeStateManager.hpp>

#include "handoverBench.hpp"

#include <lumolib/runtimeMonitor.hpp>
#include <vosk/common/testing/logCapture.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using vosk::common::LogCapture;
using vosk::lumo::HandoverBench;
using vosk::lumo::RuntimeMonitor;
using State = vosk::lumo::VoskTelescopeStateManager;
using enum vosk::defs::VoskControlMode;
using enum vosk::defs::Camera;

namespace {

struct Facts {
    vosk::defs::VoskControlMode mode = State::GetCurrentControlMode();
    vosk::defs::Camera camera = State::GetActiveCameraFs();
    bool centering = State::GetGPCenteringEnabled();
    int handover = vosk::lumo::VoskHandoverManager::GetInstance().GetState();
    vosk::lumo::StateTopic record = RuntimeMonitor::GetStateData().GetTopicData();
};

// Read before any test has touched them, and before any set-up.
const Facts FIRST_FACTS;

TEST(TelescopeState, StartsTelescopeDrivenOnTheFirstCameraWithCentering) {
    EXPECT_EQ(FIRST_FACTS.mode, TEL_DRIVEN);
    EXPECT_EQ(FIRST_FACTS.camera, IMG_GP1);
    EXPECT_TRUE(FIRST_FACTS.centering);
    EXPECT_EQ(FIRST_FACTS.handover, 0);
    EXPECT_EQ(FIRST_FACTS.record.ao_cmd_source, vosk::defs::AoCommandSource::OFF);
    EXPECT_DOUBLE_EQ(State::GetLatitude(), -0.4291659910898936);
}

TEST(TelescopeState, ObserversRunInOrderOnTheNewModeBeforeTheRecordChanges) {
    HandoverBench bench;
    LogCapture log;
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
    EXPECT_THAT(calls,
                testing::ElementsAre("a:TEL_DRIVENHIGH_ORDER_CASCADE", "b:TEL_DRIVENHIGH_ORDER_CASCADE"));
    EXPECT_EQ(HandoverBench::Record().control_mode, HIGH_ORDER_CASCADE);
    EXPECT_EQ(log.Lines().back(),
              (LogCapture::Line{log4cplus::INFO_LOG_LEVEL,
                                "VoskTelescopeStateManager::SetCurrentControlMode(): Control Mode "
                                "change TEL_DRIVEN -> HIGH_ORDER_CASCADE"}));
}

TEST(TelescopeState, SettingThePresentValueDoesNothing) {
    HandoverBench bench;
    LogCapture log;
    bool called = false;
    State::AttachControlModeObserver([&called](auto, auto) { called = true; });
    State::SetCurrentControlMode(TEL_DRIVEN);
    State::SetActiveCameraFS(State::GetActiveCameraFs());
    EXPECT_FALSE(called);
    EXPECT_FALSE(HandoverBench::Record().changed);
    EXPECT_TRUE(log.Lines().empty());
}

TEST(TelescopeState, ResetDropsObserversAndSparesTheCamera) {
    HandoverBench bench;
    State::SetActiveCameraFS(WFS_PDS);
    LogCapture log;
    State::SetActiveCameraFS(WFS_GP2);
    bool called = false;
    State::AttachControlModeObserver([&called](auto, auto) { called = true; });
    State::SetCurrentControlMode(INS_DRIVEN_CASCADE);
    State::SetGPCenteringEnabled(false);
    called = false;

    State::Reset();
    EXPECT_EQ(State::GetCurrentControlMode(), TEL_DRIVEN);
    EXPECT_EQ(State::GetActiveCameraFs(), WFS_GP2);
    EXPECT_TRUE(State::GetGPCenteringEnabled());
    State::SetCurrentControlMode(HIGH_ORDER_CASCADE);
    EXPECT_FALSE(called);
    EXPECT_TRUE(log.Has(
        log4cplus::INFO_LOG_LEVEL,
        "VoskTelescopeStateManager::SetActiveCameraFS(): Active camera FS change WFS_PDS -> WFS_GP2"));
    EXPECT_TRUE(log.Has(log4cplus::INFO_LOG_LEVEL, "VoskTelescopeStateManager::Reset(): state reset"));
}

TEST(TelescopeState, AnInvalidModeIsStoredAndHandedOnBeforeItThrows) {
    HandoverBench bench;
    const auto invalid = static_cast<vosk::defs::VoskControlMode>(7);
    bool called = false;
    State::AttachControlModeObserver([&called](auto, auto) { called = true; });
    EXPECT_THROW(State::SetCurrentControlMode(invalid), std::runtime_error);
    EXPECT_EQ(State::GetCurrentControlMode(), invalid);
    EXPECT_TRUE(called);
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
    int most = 0;
    for (int i = 0; i < OBSERVERS; ++i) {
        calls = 0;
        State::NotifyControlModeObservers(TEL_DRIVEN, HIGH_ORDER_CASCADE);
        EXPECT_GE(calls, most);  // none is lost again
        most = calls;
    }
    attaching.join();
    calls = 0;
    State::NotifyControlModeObservers(TEL_DRIVEN, HIGH_ORDER_CASCADE);
    EXPECT_EQ(calls, OBSERVERS);
}

}  // namespace
