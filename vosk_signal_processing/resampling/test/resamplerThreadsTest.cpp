// Producer and consumer in a resampler at once. For the thread sanitizer too.

#include "resamplerChains.hpp"

using namespace std::chrono_literals;

namespace vosk::signal_processing::test {
namespace {

constexpr auto PERIOD = 1ms;  // from input to input

// Every field tells the number of the input, so that a torn sample shows.
Sample InputOf(std::uint32_t number) {
    const auto value = static_cast<float>(number);
    return {At(PERIOD * number), number, {value, 2.0F * value}};
}

double TimeOf(const Sample& sample) {
    return std::chrono::duration<double, std::milli>{sample.timestamp.time_since_epoch()} / PERIOD;
}

struct Meeting {
    const char* name;
    std::unique_ptr<Resampler<Sample>> resampler;
    bool is_renumbered;  // from 1 on, and not like the input
    double lag;          // inputs by which the values of an output are behind its time: at least,
    double most_lag;     // and at most
};

void Meet(const Meeting& meeting) {
    constexpr std::uint32_t FIRST = 3;
    constexpr std::uint32_t LAST = 200'001;  // one that is due for every resampler
    Resampler<Sample>& resampler = *meeting.resampler;
    std::uint32_t outputs = 0;
    for (std::uint32_t input = 1; input < FIRST; ++input) {  // fills the filters and the upsampler's line
        resampler.AddSample(InputOf(input));
        for (; resampler.HasSamples(); ++outputs) resampler.GetSample();
    }
    std::atomic<bool> is_done{false};
    std::thread producer{[&] {
        for (std::uint32_t input = FIRST; input <= LAST; ++input) resampler.AddSample(InputOf(input));
        is_done = true;
    }};
    Sample last{};
    std::uint64_t faults = 0;
    int quiet = 0;  // looks since the producer's end; each may move a sample on by one stage of a chain
    while (quiet < 4 && faults == 0) {
        if (is_done) ++quiet;
        if (!resampler.HasSamples()) continue;
        quiet = 0;
        const Sample sample = resampler.GetSample().value();
        ++outputs;
        const double lag = TimeOf(sample) - sample.tt.tip;
        faults += sample.tt.tilt != 2.0F * sample.tt.tip || lag < meeting.lag || lag > meeting.most_lag ||
                  sample.timestamp <= last.timestamp ||
                  sample.sample_id != (meeting.is_renumbered ? outputs : TimeOf(sample));
        last = sample;
    }
    producer.join();
    EXPECT_EQ(faults, 0U) << meeting.name << ": at " << TimeOf(last);
    EXPECT_EQ(std::floor(TimeOf(last)), LAST) << meeting.name;  // the newest input is never lost
}

TEST(TwoThreads, OneProducerAndOneConsumerAtFullSpeedSeeWholeSamplesInOrder) {
    const Stage held{Kind::HELD, 1000, 4000};
    const Stage decimation{Kind::DECIMATION, 4, 2};
    const Filter delay{{{0.0, 1.0}, {0.0, 0.0}}, {0.0, 1.0}, {1.0, 0.0}, 0.0};
    Meet({"identity", MakeReal({Stage{}}), false, 0, 0});
    Meet({"lerp", MakeReal({Stage{Kind::LERP, 1000, 4000}}), true, 0, 0});
    Meet({"decimation", MakeReal({decimation}), true, 0, 0});
    Meet({"filter", MakeFilter<2>(delay, false), false, 2, 2});
    Meet({"chain", MakeReal({Stage{}, held, decimation}), true, 0, 0.75});
}

// For the thread sanitizer: the stage's waiter does not know the chain's mutex.
TEST(TwoThreads, AWaitableStageAnswersItsWaiterWhileItsChainRuns) {
    std::vector<std::unique_ptr<Resampler<Sample>>> stages;
    stages.push_back(MakeReal({Kind::IDENTITY, 1, 1, std::chrono::nanoseconds{1h}.count()}, true));
    auto& waitable = dynamic_cast<WaitableResampler&>(*stages.front());
    stages.push_back(MakeReal(Stage{}, false));
    ResamplerContainer<Sample> chain{std::move(stages)};
    std::thread producer{[&] {
        for (std::uint32_t id = 1; id <= 2'000; ++id) chain.AddSample({AtomClk::now(), id, {}});
    }};
    for (int i = 0; i < 2'000; ++i) waitable.IsDataReady();
    producer.join();
    EXPECT_TRUE(waitable.IsDataReady());
    EXPECT_EQ(chain.GetSample()->sample_id, 1U);
    EXPECT_EQ(chain.GetSample()->sample_id, 2'000U);
}

}  // namespace
}  // namespace vosk::signal_processing::test
