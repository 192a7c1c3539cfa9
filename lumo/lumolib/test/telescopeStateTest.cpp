#include <lumolib/voskTelescopeStateManager.hpp>

#include "handoverBench.hpp"

#include <vosk/test/logCapture.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using vosk::lumo::HandoverBench;
using vosk::test::LogCapture;
using State = vosk::lumo::VoskTelescopeStateManager;
using enum vosk::defs::VoskControlMode;
using enum vosk::defs::Camera;

namespace {

constexpr auto INFO = log4cplus::INFO_LOG_LEVEL;

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
              (LogCapture::Line{INFO,
                                "VoskTelescopeStateManager::SetCurrentControlMode(): Control Mode "
                                "change TEL_DRIVEN -> HIGH_ORDER_CASCADE"}));

    State::SetCurrentControlMode(HIGH_ORDER_CASCADE);  // as it is: nothing happens
    State::SetActiveCameraFS(State::GetActiveCameraFs());
    EXPECT_EQ(calls.size(), 2U);

    const auto invalid = static_cast<vosk::defs::VoskControlMode>(7);
    bool called = false;
    State::Reset();
    State::AttachControlModeObserver([&called](auto, auto) { called = true; });
    EXPECT_THROW(State::SetCurrentControlMode(invalid), std::runtime_error);
    EXPECT_EQ(State::GetCurrentControlMode(), invalid);
    EXPECT_TRUE(called);
}

TEST(TelescopeState, ResetDropsObserversAndSparesTheCamera) {
    HandoverBench bench;
    State::SetActiveCameraFS(WFS_PDS);
    const LogCapture log;
    State::SetActiveCameraFS(WFS_GP2);
    bool called = false;
    State::AttachControlModeObserver([&called](auto, auto) { called = true; });
    State::SetGPCenteringEnabled(false);

    State::Reset();
    EXPECT_EQ(State::GetCurrentControlMode(), TEL_DRIVEN);
    EXPECT_EQ(State::GetActiveCameraFs(), WFS_GP2);
    EXPECT_TRUE(State::GetGPCenteringEnabled());
    State::SetCurrentControlMode(HIGH_ORDER_CASCADE);
    EXPECT_FALSE(called);
    EXPECT_EQ(log.Lines().front(),
              (LogCapture::Line{INFO,
                                "VoskTelescopeStateManager::SetActiveCameraFS(): Active camera FS "
                                "change WFS_PDS -> WFS_GP2"}));
    EXPECT_TRUE(log.Has(INFO, "VoskTelescopeStateManager::Reset(): state reset"));
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
