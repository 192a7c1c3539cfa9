#include <atomclk/atomClk.hpp>
#include <vosk/ao_tasks/executor.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/testing/logCapture.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace {

using vosk::ao_tasks::Executor;
using vosk::defs::VoskControlMode;
using namespace vosk::defs;
using TipTilt = Executor::TipTilt;
using Vector = std::vector<float>;
using enum VoskControlMode;

constexpr float NO_LIMIT = 1e30F;

// An executor with its inputs, whose one managed mode (tip) moves all actuators alike.
class Bench {
public:
    explicit Bench(float threshold_velocity = NO_LIMIT)
        : m_executor{std::make_unique<Executor>(
              vosk::ao_tasks::CommandAssembly::Config{10},
              vosk::ao_tasks::M4SaturationManagement::Config{true, 1, Vector(M4_CMD_SIZE, 1.0F),
                                                             threshold_velocity, NO_LIMIT})} {}

    Executor& Get() { return *m_executor; }
    Executor* operator->() { return m_executor.get(); }

    void Assemble() {
        Executor::SharedLock u4_lock{m_u4_mutex, std::defer_lock};
        Executor::SharedLock gpao_lock{m_gpao_mutex, std::defer_lock};
        m_executor->Step2_CommandAssembly(u4_lock, gpao_lock, u4_fs_tt,
                                          std::span<const float, INS_CMD_SIZE>{gpao});
    }

    void Split() { m_executor->Step1_CommandSplitting(std::span<const float, WAVEFRONT_CMD_SIZE>{command}); }

    // Steps 0 to 3.
    Vector Setpoint(VoskControlMode mode) {
        m_executor->Step0_SetControlMode(mode);
        Split();
        Assemble();
        const auto setpoint = m_executor->Step3_ProcessM4SetpointData();
        return {setpoint.begin(), setpoint.end()};
    }

    Vector Applied(const Vector& applied) {
        const auto modal =
            m_executor->Step4a_ProcessM4SetpointAppliedData(std::span<const float, M4_CMD_SIZE>{applied});
        return {modal.begin(), modal.end()};
    }

    Vector command = Vector(WAVEFRONT_CMD_SIZE);
    TipTilt u4_fs_tt{};
    Vector gpao = Vector(INS_CMD_SIZE);

private:
    std::unique_ptr<Executor> m_executor;
    std::shared_mutex m_u4_mutex;
    std::shared_mutex m_gpao_mutex;
};

Vector Ramp(float first, std::size_t size = M4_CMD_SIZE) {
    Vector values(size);
    for (float& value : values) value = first++;
    return values;
}

TEST(Executor, TurnsACommandIntoASetpointAndTheAnswerIntoAppliedData) {
    Bench bench;
    bench.command = Ramp(1, WAVEFRONT_CMD_SIZE);
    Vector expected = Ramp(3);
    std::fill(expected.begin() + INS_CMD_SIZE, expected.end(), 0.0F);
    EXPECT_EQ(bench.Setpoint(INS_DRIVEN_SEQUENTIAL), expected);
    EXPECT_EQ(bench->m_fs_ref, (TipTilt{1, 2}));
    EXPECT_EQ(bench->m_tt_ref, (TipTilt{3, 4}));

    EXPECT_EQ(bench.Applied(Ramp(100)), Ramp(100, INS_CMD_SIZE));
    EXPECT_EQ(bench->m_m4_tt, (TipTilt{100, 101}));
    EXPECT_EQ(bench->m_tt_ref, (TipTilt{0, 0}));
}

TEST(Executor, AddsTheReferenceShapeToSetpointsAndTakesItOutOfAnswers) {
    Bench bench;
    const VoskControlMode no_mode{};
    bench.Setpoint(no_mode);
    bench.Applied(Ramp(1000));
    bench->UpdateRefShape();

    EXPECT_EQ(bench.Setpoint(no_mode), Ramp(1000));
    EXPECT_EQ(bench.Applied(Ramp(1500)), Vector(INS_CMD_SIZE, 500.0F));
    EXPECT_EQ(bench->m_m4_tt, (TipTilt{500, 500}));

    // The last applied setpoint holds the former shape, which the new one thereby replaces.
    bench->UpdateRefShape();
    EXPECT_EQ(bench.Setpoint(no_mode), Ramp(1500));
    bench->Step4b_ProcessInvalidM4SetpointAppliedData();
    bench->UpdateRefShape();
    EXPECT_EQ(bench.Setpoint(no_mode), Vector(M4_CMD_SIZE));
}

TEST(Executor, LimitsTheStepFromWhatM4LastApplied) {
    Bench bench{1.0F};
    bench.command[2] = 8;
    const auto tip = [&] { return bench.Setpoint(INS_DRIVEN_SEQUENTIAL)[0]; };
    Vector applied(M4_CMD_SIZE);

    EXPECT_EQ(tip(), 1.0F) << "from nothing applied yet";
    applied[0] = 1;
    bench.Applied(applied);
    EXPECT_EQ(tip(), 2.0F) << "from the answer";
    bench->Step4c_ProcessLastM4SetpointAppliedData();
    EXPECT_EQ(tip(), 2.0F) << "nothing sent";
    bench->Step4d_NotProcessM4SetpointAppliedData();
    EXPECT_EQ(tip(), 2.0F) << "answer not looked at";
    bench->Step4b_ProcessInvalidM4SetpointAppliedData();
    EXPECT_EQ(tip(), 1.0F) << "no answer";
}

struct Ending {
    std::string what;
    std::function<Vector(Bench&)> step;
    TipTilt m4_tt;
    TipTilt tt_ref_sequential;
    float modal;  // every element of the applied data, as the next step 4c tells it
};

TEST(Executor, EndsAPassInFourWays) {
    const auto copy = [](auto span) { return Vector(span.begin(), span.end()); };
    const std::vector<Ending> endings{
        {"4a", [](Bench& bench) { return bench.Applied(Vector(M4_CMD_SIZE, 9)); }, {9, 9}, {0, 0}, 9},
        {"4b",
         [&](Bench& bench) { return copy(bench->Step4b_ProcessInvalidM4SetpointAppliedData()); },
         {0, 0},
         {0, 0},
         0},
        {"4c",
         [&](Bench& bench) { return copy(bench->Step4c_ProcessLastM4SetpointAppliedData()); },
         {5, 5},
         {3, 4},
         5},
        {"4d",
         [](Bench& bench) {
             bench->Step4d_NotProcessM4SetpointAppliedData();
             return Vector(INS_CMD_SIZE, 5);
         },
         {0, 0},
         {0, 0},
         5},
    };
    for (const Ending& ending : endings) {
        for (const VoskControlMode mode : {INS_DRIVEN_SEQUENTIAL, INS_DRIVEN_CASCADE}) {
            Bench bench;
            bench.command = Ramp(1, WAVEFRONT_CMD_SIZE);
            bench.Setpoint(mode);
            bench.Applied(Vector(M4_CMD_SIZE, 5));
            bench.Setpoint(mode);

            EXPECT_EQ(ending.step(bench), Vector(INS_CMD_SIZE, ending.modal)) << ending.what;
            EXPECT_EQ(bench->m_fs_ref, (TipTilt{1, 2})) << ending.what;
            EXPECT_EQ(bench->m_tt_ref,
                      mode == INS_DRIVEN_SEQUENTIAL ? ending.tt_ref_sequential : (TipTilt{3, 4}))
                << ending.what;
            EXPECT_EQ(bench->m_m4_tt, ending.m4_tt) << ending.what;

            bench.Setpoint(mode);
            EXPECT_EQ(copy(bench->Step4c_ProcessLastM4SetpointAppliedData()),
                      Vector(INS_CMD_SIZE, ending.modal))
                << ending.what;
        }
    }
}

TEST(Executor, WorksOnTheFormerCommandIfNoneIsSplit) {
    Bench bench;
    bench.command = Ramp(1, WAVEFRONT_CMD_SIZE);
    const Vector setpoint = bench.Setpoint(INS_DRIVEN_CASCADE);
    bench->Step4d_NotProcessM4SetpointAppliedData();

    bench.command = Vector(WAVEFRONT_CMD_SIZE);
    bench->Step0_SetControlMode(INS_DRIVEN_CASCADE);
    bench.Assemble();
    const auto again = bench->Step3_ProcessM4SetpointData();
    EXPECT_EQ(Vector(again.begin(), again.end()), setpoint);
    EXPECT_EQ(again[2], 5.0F);
}

TEST(Executor, LocksTheInputsOfTheModeAndNoOther) {
    struct Locks {
        std::uint32_t mode;
        bool u4;
        bool gpao;
    };
    Bench bench;
    for (const Locks& expected : std::vector<Locks>{{0, false, false},
                                                    {1, true, true},
                                                    {2, false, false},
                                                    {3, true, false},
                                                    {4, false, true},
                                                    {5, true, true},
                                                    {6, false, true}}) {
        std::shared_mutex u4_mutex;
        std::shared_mutex gpao_mutex;
        Executor::SharedLock u4_lock{u4_mutex, std::defer_lock};
        Executor::SharedLock gpao_lock{gpao_mutex, std::defer_lock};
        bench->Step0_SetControlMode(static_cast<VoskControlMode>(expected.mode));
        bench->Step2_CommandAssembly(u4_lock, gpao_lock, bench.u4_fs_tt,
                                     std::span<const float, INS_CMD_SIZE>{bench.gpao});
        EXPECT_EQ(u4_lock.owns_lock(), expected.u4) << "mode " << expected.mode;
        EXPECT_EQ(gpao_lock.owns_lock(), expected.gpao) << "mode " << expected.mode;
        bench->ResetState();
    }
}

// Two writers that take the inputs in opposite orders: locking one input after the other would end in a
// deadlock.
struct Mutexes {
    std::shared_mutex u4;
    std::shared_mutex gpao;
};

// A writer that holds one lock and blocks on the other: a pass that did the same in the other order would
// hang.
void PassBesideAWriter(std::shared_mutex Mutexes::*outer_member, std::shared_mutex Mutexes::*inner_member) {
    Bench bench;
    Mutexes mutexes;
    std::atomic<bool> running{true};
    std::thread writer{[&] {
        while (running) {
            const std::unique_lock outer{mutexes.*outer_member};
            const std::unique_lock inner{mutexes.*inner_member};
        }
    }};
    for (int pass = 0; pass < 200; ++pass) {
        Executor::SharedLock u4_lock{mutexes.u4, std::defer_lock};
        Executor::SharedLock gpao_lock{mutexes.gpao, std::defer_lock};
        bench->Step0_SetControlMode(TEL_DRIVEN);
        bench->Step2_CommandAssembly(u4_lock, gpao_lock, bench.u4_fs_tt,
                                     std::span<const float, INS_CMD_SIZE>{bench.gpao});
        EXPECT_TRUE(u4_lock.owns_lock() && gpao_lock.owns_lock());
        bench->ResetState();
    }
    running = false;
    writer.join();
}

TEST(Executor, LocksBothInputsWithoutADeadlock) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer takes the multi-lock's second try for an inverted lock order";
#endif
    PassBesideAWriter(&Mutexes::u4, &Mutexes::gpao);
    PassBesideAWriter(&Mutexes::gpao, &Mutexes::u4);
}

TEST(Executor, HoldsThePairsOfFieldStabilisationSideBySide) {
    Bench bench;
    const auto* first = reinterpret_cast<const std::byte*>(&bench->m_fs_ref);
    EXPECT_EQ(reinterpret_cast<const std::byte*>(&bench->m_tt_ref) - first, 8);
    EXPECT_EQ(reinterpret_cast<const std::byte*>(&bench->m_m4_tt) - first, 16);
}

TEST(Executor, TellsItsTimesOnTheWorkersLogAtTrace) {
    const auto pass = [](Bench& bench) {
        bench.Setpoint(TEL_DRIVEN);
        bench->Step4d_NotProcessM4SetpointAppliedData();
        bench->PrintTimeStats();
    };
    const atomclk::ManualClock clock{atomclk::AtomClk::time_point{std::chrono::seconds{1}}};
    const vosk::common::LogCapture log;
    Bench bench;
    pass(bench);
    EXPECT_EQ(
        log.Count(log4cplus::TRACE_LOG_LEVEL,
                  "AoTasks data processing timings (task duration):\n\tcmd_splitting = 0 us, cmd_assembly = "
                  "0 us, m4_ref_shape = 0 us, m4_saturation = 0 us, m4_applied_process = 0 us"),
        1);
    EXPECT_EQ(
        log.Count(log4cplus::DEBUG_LOG_LEVEL,
                  "M4 Saturation Management timings (steps duration) [delta cmd]:\n\tdelta_act_pos = 0 us, "
                  "scale_vel = 0 us, pos1 = 0 us, scale_gap = 0 us, am_setpoint = 0 us"),
        1);
    vosk::common::GetLogger().setLogLevel(log4cplus::DEBUG_LOG_LEVEL);
    pass(bench);
    EXPECT_EQ(log.Lines().size(), 2U);
}

TEST(ExecutorDeathTest, StopsOnAStepOutOfOrder) {
    using Operation = std::function<void(Bench&)>;
    const std::vector<Operation> forward{
        [](Bench& bench) { bench->Step0_SetControlMode(INS_DRIVEN_CASCADE); },
        [](Bench& bench) { bench.Split(); },
        [](Bench& bench) { bench.Assemble(); },
        [](Bench& bench) { bench->Step3_ProcessM4SetpointData(); },
    };
    struct Contract {
        Operation operation;
        std::array<bool, 5> allowed;  // after steps 0, 1, 2, 3, and when done
        std::string text;
    };
    const std::array<bool, 5> after_step3{false, false, false, true, false};
    const std::vector<Contract> contracts{
        {forward[0], {false, false, false, false, true}, "m_state == State::DONE"},
        {forward[1], {true, false, false, false, false}, "m_state == State::STEP0\n"},
        {forward[2], {true, true, false, false, false}, "m_state == State::STEP0 .. m_state == State::STEP1"},
        {forward[3], {false, false, true, false, false}, "m_state == State::STEP2"},
        {[](Bench& bench) { bench.Applied(Vector(M4_CMD_SIZE)); }, after_step3, "m_state == State::STEP3"},
        {[](Bench& bench) { bench->Step4b_ProcessInvalidM4SetpointAppliedData(); }, after_step3,
         "m_state == State::STEP3"},
        {[](Bench& bench) { bench->Step4c_ProcessLastM4SetpointAppliedData(); }, after_step3,
         "m_state == State::STEP3"},
        {[](Bench& bench) { bench->Step4d_NotProcessM4SetpointAppliedData(); }, after_step3,
         "m_state == State::STEP3"},
        {[](Bench& bench) { bench->UpdateRefShape(); }, {true, true, true, true, true}, ""},
        {[](Bench& bench) {
             bench->ResetState();
             bench->Step0_SetControlMode(TEL_DRIVEN);
         },
         {true, true, true, true, true},
         ""},
    };
    for (std::size_t state = 0; state < 5; ++state) {
        for (std::size_t i = 0; i < contracts.size(); ++i) {
            Bench bench;
            for (std::size_t step = 0; state < forward.size() && step <= state; ++step) forward[step](bench);
            if (contracts[i].allowed[state]) {
                contracts[i].operation(bench);
            } else {
                EXPECT_DEATH(contracts[i].operation(bench), contracts[i].text)
                    << "state " << state << ", " << i;
            }
        }
    }
}

}  // namespace
