#include "judge/appliedCheck.hpp"
#include "judge/loopModel.hpp"
#include "telescope/mirror.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <complex>
#include <numbers>
#include <vector>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;

constexpr double PERIOD = 0.02;

// One mirror that has its command half a period before the exposure that is `periods` later.
LoopController Integrator(double gain, double leak, int periods) {
    return {gain, leak, {{1.0, (periods - 0.5) * PERIOD, 1e-9}}};
}

// The residual, summed up, long after one disturbed exposure.
double LeftOver(const LoopController& controller) {
    LoopModel model({controller}, PERIOD);
    model.Step(1.0);
    for (int step = 0; step < 8000; ++step) model.Step(0.0);
    double sum = 0.0;
    for (int step = 0; step < 100; ++step) sum += std::abs(model.Step(0.0));
    return sum;
}

TEST(LoopModel, IsStableUpToTheGainOfItsDelay) {
    for (int periods = 1; periods <= 3; ++periods) {
        const double limit = 2.0 * std::sin(std::numbers::pi / (2.0 * (2 * periods - 1)));
        EXPECT_LT(LeftOver(Integrator(0.98 * limit, 1.0, periods)), 1e-3) << periods;
        EXPECT_GT(LeftOver(Integrator(1.02 * limit, 1.0, periods)), 1e3) << periods;
    }
}

TEST(LoopModel, RejectsAsTheClosedFormSays) {
    const std::vector<double> frequencies{0.2, 1.0, 5.0, 12.5, 24.0};
    for (int periods = 1; periods <= 3; ++periods) {
        const auto found = RejectionAt({Integrator(0.4, 0.99, periods)}, PERIOD, frequencies);
        for (std::size_t i = 0; i < frequencies.size(); ++i) {
            const auto back = std::polar(1.0, -2.0 * std::numbers::pi * frequencies[i] * PERIOD);
            const auto loop = 0.4 * std::pow(back, periods) / (1.0 - 0.99 * back);
            EXPECT_NEAR(found[i], 1.0 / std::abs(1.0 + loop), 1e-6) << periods << ", " << frequencies[i];
        }
    }
}

TEST(Mirror, TellsThePastAgainWhateverCommandComesLater) {
    Mirror mirror(1, 10ms, 8);
    const auto position = [&](std::chrono::milliseconds time) {
        std::array<double, 1> told{};
        mirror.At(time_point(time), told);
        return told[0];
    };
    EXPECT_EQ(position(100ms), 0.0);
    mirror.Follow(time_point(50ms), std::array{1.0});  // from 100 ms on, which was seen
    EXPECT_EQ(position(80ms), 0.0);
    EXPECT_NEAR(position(110ms), 1.0 - std::exp(-1.0), 1e-12);
    mirror.Follow(time_point(105ms), std::array{-1.0});
    EXPECT_NEAR(position(105ms), 1.0 - std::exp(-0.5), 1e-12);
    EXPECT_NEAR(position(120ms), -1.0 + (2.0 - std::exp(-1.0)) * std::exp(-1.0), 1e-12);
}

// M4 answers twelve setpoints, 10 ms apart, with 1, 2, 3...
TEST(AppliedCheck, WantsTheAnswerOfTheLatestSetpointWithinTheMargin) {
    std::vector<SetpointRecord> setpoints(12);
    std::vector<common::shmif::GpaoVector> applied(setpoints.size());
    for (std::size_t i = 0; i < setpoints.size(); ++i) {
        setpoints[i].arrived = setpoints[i].answer_sent = time_point(10ms * (i + 1));
        setpoints[i].answer = AnswerFate::Sent;
        applied[i][0] = static_cast<float>(i + 1);
    }
    const auto verdict = [&](std::chrono::milliseconds time, float told) {
        std::vector<GpaoRecord> records(1);
        records[0].in.timestamp = time_point(time);
        records[0].in.applied_m4_cmd[0] = told;
        const HopAccount hop = CheckApplied({setpoints, applied, records, 5ms});
        return hop.right == 1 ? "right" : hop.missing == 1 ? "missing" : "wrong";
    };
    EXPECT_STREQ(verdict(5ms, 0.0F), "right");
    EXPECT_STREQ(verdict(112ms, 11.0F), "right");
    EXPECT_STREQ(verdict(112ms, 10.0F), "right");
    EXPECT_STREQ(verdict(116ms, 10.0F), "missing");
    EXPECT_STREQ(verdict(116ms, 12.0F), "wrong");
    EXPECT_STREQ(verdict(116ms, 0.0F), "missing");
    setpoints[10].answer = AnswerFate::Harmed;
    EXPECT_STREQ(verdict(116ms, 10.0F), "right");
    EXPECT_STREQ(verdict(116ms, 11.0F), "wrong");
    EXPECT_STREQ(verdict(116ms, 0.0F), "right");
}

}  // namespace
}  // namespace vosk::rig
