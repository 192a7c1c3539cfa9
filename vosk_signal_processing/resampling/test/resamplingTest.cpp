// What the resamplers give, worked out on paper; what they refuse; when they notify.

#include "resamplerModels.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace vosk::signal_processing::test {
namespace {

using ::testing::ElementsAre;
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

TEST(Resampler, BadArgumentsAreRefused) {
    using Lerp = LerpUpsampler<Sample, Opaque>;
    using Decimation = SampleIdDecimatingDownsampler<Sample, Opaque>;
    EXPECT_EQ(TextOf<std::runtime_error>([] { IdentityResampler<Sample, Opaque>{-1ns}; }),
              "StopIntervalResampler: stop interval must not be negative");
    const auto lerp = [](std::size_t in, std::size_t out) {
        return TextOf<std::runtime_error>([=] { Lerp{in, out, 0ns}; });
    };
    EXPECT_EQ(lerp(0, 0), "OutputRateResampler: output rate must not be 0");
    EXPECT_EQ(lerp(1, 1'000'000'001), "OutputRateResampler: output rate must not be above 1000000000");
    EXPECT_EQ(lerp(0, 1), "ExpectedInputRateResampler: expected input rate must not be 0");
    EXPECT_EQ(lerp(2, 1), "LerpUpsampler: expected input rate is greater than output rate");
    EXPECT_EQ(lerp(2, 5), "LerpUpsampler: output rate is not divisible by input rate");
    EXPECT_EQ(lerp(1, 1'000'000'000), "no exception");
    const auto decimation = [](std::size_t in, std::size_t out) {
        return TextOf<std::runtime_error>([=] { Decimation{in, out, 0ns}; });
    };
    EXPECT_EQ(decimation(1, 2), "SampleIdDecimatingDownsampler: output rate is greater than input rate");
    EXPECT_EQ(decimation(0, 0), "SampleIdDecimatingDownsampler: output rate is 0");
    EXPECT_EQ(decimation(5, 2), "SampleIdDecimatingDownsampler: input rate is not divisible by output rate");
    std::vector<std::unique_ptr<Resampler<Sample>>> stages(1);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { ResamplerContainer<Sample>{std::move(stages)}; }),
              "ResamplerContainer: resampler is a nullptr");
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
