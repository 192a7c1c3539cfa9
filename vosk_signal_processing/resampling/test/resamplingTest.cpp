// What the resamplers give, worked out on paper; what they refuse; when they notify.

#include "resamplerModels.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vosk/test/logCapture.hpp>

#include <functional>
#include <tuple>

using namespace std::chrono_literals;

namespace vosk::signal_processing::test {
namespace {

using ::testing::ElementsAre;
using vosk::test::LogCapture;
using vosk::test::TextOf;

template <class R>
std::vector<Sample> TakeAll(R& resampler) {
    std::vector<Sample> outputs;
    while (resampler.HasSamples()) outputs.push_back(*resampler.GetSample());
    return outputs;
}

TEST(Resampler, DataIsReadableUpToTheStopIntervalAndNotAtIt) {
    atomclk::ManualClock clock{At(5'000'000)};
    IdentityResampler<Sample, Opaque> mailbox{1'000'000ns};
    mailbox.AddSample({At(4'000'001), 7, {}});
    EXPECT_TRUE(mailbox.HasSamples());
    clock.Advance(1ns);
    EXPECT_FALSE(mailbox.HasSamples());
    EXPECT_FALSE(mailbox.GetSample());
    clock.Advance(-1ns);
    EXPECT_EQ(mailbox.GetSample()->sample_id, 7);  // the refused read has changed nothing
    mailbox.AddSample({At(1), 8, {}});             // too old from the start, but stored
    EXPECT_FALSE(mailbox.HasSamples());
    clock.Set(At(1'000'000));
    EXPECT_EQ(mailbox.GetSample()->sample_id, 8);
}

TEST(LerpUpsampler, ExtrapolatesTheLineThroughTheLastTwoInputs) {
    LerpUpsampler<Sample, Accessed> upsampler{100, 1000, 0ns};
    EXPECT_FALSE(upsampler.HasSamples());
    EXPECT_FALSE(upsampler.GetSample());
    upsampler.AddSample({At(1'000), 50, {2.0F, -1.0F}});
    auto outputs = TakeAll(upsampler);
    ASSERT_EQ(outputs.size(), 10U);
    for (unsigned i = 0; i < 10; ++i) {
        EXPECT_EQ(outputs[i].timestamp, At(1'000 + 1'000'000 * i));
        EXPECT_EQ(outputs[i].sample_id, i + 1);
        EXPECT_EQ(outputs[i].tt, (defs::FloatVectorTT{2.0F, -1.0F}));
    }
    upsampler.AddSample({At(10'001'000), 51, {3.0F, -2.0F}});
    outputs = TakeAll(upsampler);
    ASSERT_EQ(outputs.size(), 10U);
    for (unsigned i = 0; i < 10; ++i) {
        EXPECT_FLOAT_EQ(outputs[i].tt.tip, 3.0F + 0.1F * static_cast<float>(i));
        EXPECT_FLOAT_EQ(outputs[i].tt.tilt, -2.0F - 0.1F * static_cast<float>(i));
    }
    EXPECT_EQ(outputs[0].tt, (defs::FloatVectorTT{3.0F, -2.0F}));
}

TEST(LerpUpsampler, SkipsWhatADelayUsedUpAndHoldsThePhaseOfASlowConsumer) {
    LerpUpsampler<Sample, Accessed> upsampler{100, 1000, 0ns};
    upsampler.AddSample({At(0), 1, {}});
    EXPECT_EQ(TakeAll(upsampler).size(), 10U);
    upsampler.AddSample({At(13'000'000), 2, {}});  // late by three outputs
    EXPECT_EQ(TakeAll(upsampler).size(), 7U);
    upsampler.AddSample({At(33'000'000), 3, {}});  // by a whole input
    EXPECT_EQ(upsampler.GetSample()->timestamp, At(33'000'000));
    for (int i = 0; i < 3; ++i) upsampler.GetSample();
    upsampler.AddSample({At(43'000'000), 4, {}});  // four outputs taken
    EXPECT_EQ(upsampler.GetSample()->timestamp, At(47'000'000));
}

TEST(Downsampler, IsDueByIdOrByCountAndNumbersAnew) {
    SampleIdDecimatingDownsampler<Sample, Opaque> downsampler{1000, 100, 0ns};
    const auto reads = [&](std::uint32_t first, std::uint32_t last) {
        std::vector<std::pair<std::uint32_t, std::uint32_t>> outputs;  // input ID, by its time, and output ID
        for (std::uint32_t id = first; id <= last; ++id) {
            downsampler.AddSample({At(id), id, {}});
            for (const Sample& sample : TakeAll(downsampler)) {
                outputs.emplace_back(sample.timestamp.time_since_epoch().count(), sample.sample_id);
            }
        }
        return outputs;
    };
    EXPECT_THAT(reads(1, 25), ElementsAre(std::pair{1U, 1U}, std::pair{11U, 2U}, std::pair{21U, 3U}));
    EXPECT_THAT(reads(40, 42), ElementsAre(std::pair{40U, 4U}));  // a gap
    EXPECT_THAT(reads(1, 12), ElementsAre(std::pair{8U, 5U}));    // a restart of the sender
    downsampler.AddSample({At(99), 99, {}});
    downsampler.AddSample({At(100), 100, {}});
    EXPECT_EQ(downsampler.GetSample()->timestamp, At(100));
    EXPECT_EQ(downsampler.GetSample()->sample_id, 7U);  // each read takes a number
}

// What comes out of a chain as inputs go in; the second input is number 2, and so on.
struct Step {
    std::int64_t at;  // ms, of the input
    float value;
    int reads;                                                            // at most
    std::vector<std::tuple<std::int64_t, std::uint32_t, float>> outputs;  // us, number, value
    std::int64_t now = 0;                                                 // ms, on the clock
};

TEST(ResamplerContainer, RunsAtThePaceOfItsEnd) {
    const std::pair<std::vector<Stage>, std::vector<Step>> cases[] = {
        // An input waits in the mailbox until the upsampler is spent, and gives way to a newer one.
        {{{"identity"}, {"lerp", 250, 500}},
         {{0, 10, 0, {}},
          {4, 20, 0, {}},
          {8, 30, 9, {{0, 1, 10}, {2000, 2, 10}, {8000, 3, 30}, {10000, 4, 40}}},
          {12, 50, 1, {{12000, 5, 50}}},
          {16, 0, 9, {{14000, 6, 60}, {16000, 7, 0}, {18000, 8, -25}}}}},
        // Of four outputs an input, each second one.
        {{{"lerp", 250, 1000}, {"decimation", 1000, 500}},
         {{0, 10, 9, {{0, 1, 10}, {2000, 2, 10}}}, {4, 14, 9, {{4000, 3, 14}, {6000, 4, 16}}}}},
        // The filter's state knows nothing of what was left out: y = x + u / 8, then x = 3 x / 4 + u / 4.
        {{{"decimation", 1000, 500}, {"filter1"}},
         {{0, 8, 9, {{0, 1, 1}}},
          {1, 99, 9, {}},
          {2, 16, 9, {{2000, 2, 4}}},
          {3, 99, 9, {}},
          {4, 0, 9, {{4000, 3, 5.5F}}}}},
        {{{"filter1"}, {"lerp", 500, 1000}},
         {{0, 8, 9, {{0, 1, 1}, {1000, 2, 1}}}, {2, 16, 9, {{2000, 3, 4}, {3000, 4, 5.5F}}}}},
        // What has left a stage no longer ages in it; what waits in it does.
        {{{"identity", 1, 1, 3'000'000}, {"identity"}},
         {{0, 1, 0, {}, 2}, {4, 2, 9, {{0, 1, 1}}, 7}, {5, 3, 9, {{5000, 3, 3}}, 7}}},
    };
    for (const auto& [stages, steps] : cases) {
        SCOPED_TRACE(stages.front().kind + ", " + stages.back().kind);
        const auto chain = MakeReal(stages);
        atomclk::ManualClock clock{At(0)};
        std::uint32_t input = 0;
        for (const Step& step : steps) {
            clock.Set(At(1ms * step.now));
            chain->AddSample({At(1ms * step.at), ++input, {step.value, 0.0F}});
            std::vector<std::tuple<std::int64_t, std::uint32_t, float>> outputs;
            for (int i = 0; i < step.reads && chain->HasSamples(); ++i) {
                const Sample output = chain->GetSample().value();
                outputs.emplace_back(output.timestamp.time_since_epoch() / 1us, output.sample_id,
                                     output.tt.tip);
            }
            EXPECT_EQ(outputs, step.outputs) << "input " << input;
        }
    }
}

TEST(Resampler, BadArgumentsAreRefusedInTheLogAndByException) {
    using Lerp = LerpUpsampler<Sample, Opaque>;
    using Decimation = SampleIdDecimatingDownsampler<Sample, Opaque>;
    const auto lerp = [](std::size_t in, std::size_t out) { return [=] { Lerp{in, out, 0ns}; }; };
    const auto decimation = [](std::size_t in, std::size_t out) { return [=] { Decimation{in, out, 0ns}; }; };
    const std::pair<std::function<void()>, const char*> cases[] = {
        {[] { IdentityResampler<Sample, Opaque>{-1ns}; },
         "StopIntervalResampler: stop interval must not be negative"},
        {lerp(0, 0), "OutputRateResampler: output rate must not be 0"},
        {lerp(1, 1'000'000'001), "OutputRateResampler: output rate must not be above 1000000000"},
        {lerp(0, 1), "ExpectedInputRateResampler: expected input rate must not be 0"},
        {lerp(2, 1), "LerpUpsampler: expected input rate is greater than output rate"},
        {lerp(2, 5), "LerpUpsampler: output rate is not divisible by input rate"},
        {decimation(1, 2), "SampleIdDecimatingDownsampler: output rate is greater than input rate"},
        {decimation(0, 0), "SampleIdDecimatingDownsampler: output rate is 0"},
        {decimation(5, 2), "SampleIdDecimatingDownsampler: input rate is not divisible by output rate"},
        {[] { ResamplerContainer<Sample>{std::vector<std::unique_ptr<Resampler<Sample>>>(1)}; },
         "ResamplerContainer: resampler is a nullptr"},
    };
    for (const auto& [construct, text] : cases) {
        const LogCapture log;
        EXPECT_EQ(TextOf<std::runtime_error>(construct), text);
        EXPECT_EQ(log.Lines(), (std::vector{LogCapture::Line{log4cplus::ERROR_LOG_LEVEL, text}}));
    }
    EXPECT_NO_THROW(lerp(1, 1'000'000'000)());
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
