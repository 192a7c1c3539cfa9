#include <vosk/ao_tasks/executor.hpp>

#include <unistd.h>
#include <fstream>
#include <iterator>
#include <mutex>
#include <shared_mutex>
#include <vosk/test/support.hpp>

namespace {

using vosk::ao_tasks::Executor;
using vosk::defs::VoskControlMode;
using namespace vosk::defs;
using TipTilt = Executor::TipTilt;
using Vector = std::vector<float>;
using enum VoskControlMode;

constexpr float NO_LIMIT = 1e30F;

struct Mutexes {
    std::shared_mutex u4;
    std::shared_mutex gpao;
};

// An executor with its inputs, whose one managed mode (tip) moves all actuators alike.
class Bench {
public:
    explicit Bench(float threshold_velocity = NO_LIMIT)
        : m_executor{std::make_unique<Executor>(
              vosk::ao_tasks::CommandAssembly::Config{10},
              vosk::ao_tasks::M4SaturationManagement::Config{true, 1, Vector(M4_CMD_SIZE, 1.0F),
                                                             threshold_velocity, NO_LIMIT})} {}

    Executor* operator->() { return m_executor.get(); }

    // Which of the two inputs were locked.
    std::pair<bool, bool> Assemble() {
        Executor::SharedLock u4_lock{mutexes.u4, std::defer_lock};
        Executor::SharedLock gpao_lock{mutexes.gpao, std::defer_lock};
        m_executor->Step2_CommandAssembly(u4_lock, gpao_lock, u4_fs_tt,
                                          std::span<const float, INS_CMD_SIZE>{gpao});
        return {u4_lock.owns_lock(), gpao_lock.owns_lock()};
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

    Mutexes mutexes;

private:
    std::unique_ptr<Executor> m_executor;
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
    EXPECT_EQ(bench.Setpoint(INS_DRIVEN_SEQUENTIAL)[0], 1.0F);
    bench.Applied(Vector(M4_CMD_SIZE, 1.0F));
    EXPECT_EQ(bench.Setpoint(INS_DRIVEN_SEQUENTIAL)[0], 2.0F);
}

TEST(Executor, EndsAPassInFourWays) {
    struct Ending {
        std::function<void(Bench&)> step;
        TipTilt m4_tt;
        TipTilt tt_ref_sequential;
        float modal;  // all of the applied data, as the next step 4c returns it, and of M4's position
    };
    const std::vector<Ending> endings{
        {[](Bench& bench) { bench.Applied(Vector(M4_CMD_SIZE, 9)); }, {9, 9}, {0, 0}, 9},
        {[](Bench& bench) { bench->Step4b_ProcessInvalidM4SetpointAppliedData(); }, {0, 0}, {0, 0}, 0},
        {[](Bench& bench) { bench->Step4c_ProcessLastM4SetpointAppliedData(); }, {5, 5}, {3, 4}, 5},
        {[](Bench& bench) { bench->Step4d_NotProcessM4SetpointAppliedData(); }, {0, 0}, {0, 0}, 5},
    };
    for (std::size_t i = 0; i < endings.size(); ++i) {
        for (const VoskControlMode mode : {INS_DRIVEN_SEQUENTIAL, INS_DRIVEN_CASCADE}) {
            SCOPED_TRACE("abcd"[i]);
            Bench bench;
            bench.command = Ramp(1, WAVEFRONT_CMD_SIZE);
            bench.Setpoint(mode);
            bench.Applied(Vector(M4_CMD_SIZE, 5));
            bench.Setpoint(mode);
            endings[i].step(bench);
            EXPECT_EQ(bench->m_tt_ref,
                      mode == INS_DRIVEN_SEQUENTIAL ? endings[i].tt_ref_sequential : (TipTilt{3, 4}));
            EXPECT_EQ(bench->m_m4_tt, endings[i].m4_tt);
            bench.Setpoint(mode);
            const auto modal = bench->Step4c_ProcessLastM4SetpointAppliedData();
            EXPECT_EQ(Vector(modal.begin(), modal.end()), Vector(INS_CMD_SIZE, endings[i].modal));
            bench->UpdateRefShape();
            EXPECT_EQ(bench.Setpoint(mode).back(), endings[i].modal);
        }
    }
}

// Steps 0 and 2 of a pass that ends there.
std::pair<bool, bool> LockedInputs(Bench& bench, VoskControlMode mode) {
    bench->Step0_SetControlMode(mode);
    const auto locked = bench.Assemble();
    bench->ResetState();
    return locked;
}

TEST(Executor, LocksTheInputsOfTheModeAndNoOther) {
    Bench bench;
    const std::pair<bool, bool> expected[]{{false, false}, {true, true}, {false, false}, {true, false},
                                           {false, true},  {true, true}, {false, true}};
    for (std::uint32_t mode = 0; mode < std::size(expected); ++mode)
        EXPECT_EQ(LockedInputs(bench, static_cast<VoskControlMode>(mode)), expected[mode]) << mode;
}

bool IsAsleep(pid_t thread) {
    std::ifstream file{"/proc/self/task/" + std::to_string(thread) + "/stat"};
    std::string text;
    std::getline(file, text);
    return text.find(") S ") != std::string::npos;
}

// A writer who holds one lock must get the other one while the pass waits, or both would wait without end.
TEST(Executor, HoldsNeitherInputWhileItWaitsForTheOther) {
    for (const auto& [held, free] :
         {std::pair{&Mutexes::u4, &Mutexes::gpao}, {&Mutexes::gpao, &Mutexes::u4}}) {
        Bench bench;
        std::unique_lock writer{bench.mutexes.*held};
        std::atomic<pid_t> thread{0};
        std::jthread pass{[&] {
            thread = ::gettid();
            EXPECT_EQ(LockedInputs(bench, TEL_DRIVEN), std::pair(true, true));
        }};
        std::unique_lock other{bench.mutexes.*free, std::defer_lock};
        EXPECT_TRUE(
            vosk::test::Eventually([&] { return thread != 0 && IsAsleep(thread) && other.try_lock(); }));
        writer.unlock();
    }
}

TEST(ExecutorDeathTest, StopsOnAStepOutOfOrder) {
    Bench bench;  // done
    EXPECT_DEATH(bench.Split(), "m_state == State::STEP0\n");
    EXPECT_DEATH(bench.Assemble(), "m_state == State::STEP0 .. m_state == State::STEP1");
    bench->Step0_SetControlMode(INS_DRIVEN_CASCADE);
    EXPECT_DEATH(bench->Step0_SetControlMode(INS_DRIVEN_CASCADE), "m_state == State::DONE");
    EXPECT_DEATH(bench->Step3_ProcessM4SetpointData(), "m_state == State::STEP2");
    bench.Assemble();
    EXPECT_DEATH(bench.Applied(Vector(M4_CMD_SIZE)), "m_state == State::STEP3");
    EXPECT_DEATH(bench->Step4b_ProcessInvalidM4SetpointAppliedData(), "m_state == State::STEP3");
    EXPECT_DEATH(bench->Step4c_ProcessLastM4SetpointAppliedData(), "m_state == State::STEP3");
    EXPECT_DEATH(bench->Step4d_NotProcessM4SetpointAppliedData(), "m_state == State::STEP3");
    bench->ResetState();
    bench->Step0_SetControlMode(INS_DRIVEN_CASCADE);
}

}  // namespace
