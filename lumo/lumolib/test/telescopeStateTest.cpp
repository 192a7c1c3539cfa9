#include <lumolib/voskTelescopeStateManager.hpp>

#include "handoverBench.hpp"

#include <vosk/test/support.hpp>

using vosk::lumo::HandoverBench;
using State = vosk::lumo::VoskTelescopeStateManager;
using enum vosk::defs::VoskControlMode;

namespace {

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
    HandoverBench bench;
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
