// The outputs of resamplers, worked out on paper, and their notifications.

#include "resamplerChains.hpp"

#include <tuple>

using namespace std::chrono_literals;

namespace vosk::signal_processing::test {
namespace {

using ::testing::ElementsAre;

// An input, and what comes out after it.
struct Step {
    std::int64_t at;  // ms
    float value;
    int reads;  // at most
    Outputs outputs;
    std::uint32_t id = 0;  // 0: the next one
    std::int64_t now = 0;  // ms, on the clock
};

TEST(Resampler, GivesWhatWasWorkedOutOnPaper) {
    const std::pair<std::vector<Stage>, std::vector<Step>> cases[] = {
        // On time; late by two outputs and a bit; late by a whole input; read too slowly.
        {{{Kind::LERP, 100, 400}},
         {{0, 2, 9, {{0, 1, 2}, {2500, 2, 2}, {5000, 3, 2}, {7500, 4, 2}}},
          {10, 3, 9, {{10000, 5, 3}, {12500, 6, 3.25F}, {15000, 7, 3.5F}, {17500, 8, 3.75F}}},
          {26, 7, 9, {{31000, 9, 9}, {33500, 10, 10}}},
          {46, 7, 1, {{46000, 11, 7}}},
          {56, 11, 9, {{58500, 12, 12}, {61000, 13, 13}, {63500, 14, 14}}}}},
        // Read late; a gap in the numbers; a sender that starts again.
        {{{Kind::DECIMATION, 300, 100}},
         {{1, 5, 9, {{1000, 1, 5}}},
          {2, 0, 9, {}},
          {3, 0, 9, {}},
          {4, 6, 0, {}},
          {5, 7, 9, {{5000, 2, 7}}},
          {6, 0, 9, {}},
          {40, 8, 9, {{40000, 3, 8}}, 40},
          {41, 0, 9, {}, 1},
          {42, 0, 9, {}},
          {43, 9, 9, {{43000, 4, 9}}}}},
        // An input waits in the mailbox until the upsampler is spent, and gives way to a newer one.
        {{{Kind::IDENTITY}, {Kind::LERP, 250, 500}},
         {{0, 10, 0, {}},
          {4, 20, 0, {}},
          {8, 30, 9, {{0, 1, 10}, {2000, 2, 10}, {8000, 3, 30}, {10000, 4, 40}}},
          {12, 50, 1, {{12000, 5, 50}}},
          {16, 0, 9, {{14000, 6, 60}, {16000, 7, 0}, {18000, 8, -25}}}}},
        // The filter's state knows nothing of the inputs that were left out: y = x + u / 8, then
        // x = 3 x / 4 + u / 4.
        {{{Kind::DECIMATION, 1000, 500}, {Kind::FILTER1}},
         {{0, 8, 9, {{0, 1, 1}}}, {1, 99, 9, {}}, {2, 16, 9, {{2000, 2, 4}}}}},
        // A sample ages in the stage where it waits, and no longer in one that it has left.
        {{{Kind::IDENTITY, 1, 1, 3'000'000}, {Kind::IDENTITY}},
         {{0, 1, 0, {}, 0, 2}, {4, 2, 9, {{0, 1, 1}}, 0, 7}, {5, 3, 9, {{5000, 3, 3}}, 0, 7}}},
    };
    for (const auto& [stages, steps] : cases) {
        SCOPED_TRACE(::testing::PrintToString(stages));
        const auto resampler = MakeReal(stages);
        EXPECT_FALSE(resampler->HasSamples());
        atomclk::ManualClock clock{At(0)};
        std::uint32_t id = 0;
        for (const Step& step : steps) {
            clock.Set(At(1ms * step.now));
            id = step.id == 0 ? id + 1 : step.id;
            resampler->AddSample({At(1ms * step.at), id, {step.value, 0.0F}});
            EXPECT_EQ(ReadDue(*resampler, step.reads), step.outputs) << "input at " << step.at;
        }
    }
    EXPECT_FALSE(MakeReal({Stage{Kind::LERP}})->GetSample());  // before the first input
}

// Looks at its flags within each notification, which hangs if the resampler is still locked then.
class LookingSynchronizer : public common::WaitSynchronizer {
public:
    bool Wait(const int&) override { return false; }
    bool WaitUntil(const AtomClk::time_point&, const int&) override { return false; }
    bool WaitForNotReady(const int&) override { return false; }
    bool WaitForNotReadyUntil(const AtomClk::time_point&, const int&) override { return false; }
    void Notify() override { seen.push_back(IsAnyFlagReady()); }

    std::vector<bool> seen;
};

TEST(WaitableResampler, TellsOfEachChangeAfterItAndKeepsNoStateOfItsOwn) {
    atomclk::ManualClock clock{At(1'000)};
    const auto synchronizer = std::make_shared<LookingSynchronizer>();
    {
        WaitableResamplerImplementation<IdentityResampler<Sample, Opaque>> mailbox{100ns};
        mailbox.ReplaceSynchronizer(synchronizer);
        mailbox.AddSample({At(950), 1, {}});
        EXPECT_EQ(mailbox.GetSample()->sample_id, 1);
        mailbox.AddSample({At(900), 2, {}});  // too old
        EXPECT_THAT(synchronizer->seen, ElementsAre(true, false, false));
        mailbox.AddSample({At(950), 3, {}});
    }
    EXPECT_FALSE(synchronizer->IsAnyFlagReady());
}

}  // namespace
}  // namespace vosk::signal_processing::test
