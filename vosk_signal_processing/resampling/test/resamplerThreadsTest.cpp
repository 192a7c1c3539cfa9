// Producer and consumer in a resampler at once. For the thread sanitizer too.

#include <vosk/signal_processing/resamplingFactory.hpp>
#include <vosk/test/support.hpp>

using namespace std::chrono_literals;

namespace vosk::signal_processing::test {
namespace {

using atomclk::AtomClk;
using vosk::test::At;

constexpr auto PERIOD = 1ms;  // from input to input

// Every word tells the number of its origin, so that a torn sample shows; so does every value, as far as a
// resampler computes on it.
struct Proof {
    AtomClk::time_point timestamp{};
    std::uint32_t sample_id{};
    std::array<std::uint64_t, 8> words{};
    std::array<float, 4> values{};

    static Proof Of(std::uint64_t origin) {
        Proof proof{At(PERIOD * origin), static_cast<std::uint32_t>(origin), {}, {}};
        for (std::size_t i = 0; i < proof.words.size(); ++i) proof.words[i] = origin * (2 * i + 1);
        for (std::size_t i = 0; i < proof.values.size(); ++i)
            proof.values[i] = static_cast<float>(origin * (i + 1));
        return proof;
    }

    std::span<float, 4> Values() { return values; }
    double Origin() const { return static_cast<double>(words[0]); }
    double Time() const {
        return std::chrono::duration<double, std::milli>{timestamp.time_since_epoch()} / PERIOD;
    }
};

using Opaque = NoDataAccessor<Proof>;
using Accessed = DefaultDataAccessor<Proof, float>;
using Stage = std::unique_ptr<Resampler<Proof>>;

// A filter whose output is its input, two inputs late.
Stage MakeDelay() {
    return std::make_unique<StateSpaceFilter<Proof, Accessed, 2, 1, 1>>(
        std::array{0.0, 1.0, 0.0, 0.0}, std::array{0.0, 1.0}, std::array{1.0, 0.0}, std::array{0.0}, false);
}

Stage MakeChain() {
    std::vector<Stage> stages;
    stages.push_back(std::make_unique<IdentityResampler<Proof, Opaque>>(0ns));
    stages.push_back(std::make_unique<LerpUpsampler<Proof, Opaque>>(1000, 4000, 0ns));
    stages.push_back(std::make_unique<SampleIdDecimatingDownsampler<Proof, Opaque>>(4, 2, 0ns));
    return std::make_unique<ResamplerContainer<Proof>>(std::move(stages));
}

bool IsWhole(const Proof& sample, double value) {
    bool is_whole = sample.words == Proof::Of(sample.words[0]).words;
    for (std::size_t i = 0; i < sample.values.size(); ++i)
        is_whole &= sample.values[i] == static_cast<float>(value * static_cast<double>(i + 1));
    return is_whole;
}

// `value`: the origin that the values are to tell. `is_renumbered`: from 1 on, and not like the origin.
void Meet(const char* name, Stage resampler, bool is_renumbered, double (*value)(const Proof&)) {
    constexpr std::uint64_t FIRST = 3;
    constexpr std::uint64_t LAST = 50'001;  // one that is due for every resampler
    std::uint32_t outputs = 0;
    for (std::uint64_t input = 1; input < FIRST; ++input) {  // fills the filters and the upsampler's line
        resampler->AddSample(Proof::Of(input));
        for (; resampler->HasSamples(); ++outputs) resampler->GetSample();
    }
    std::atomic<bool> is_done{false};
    std::thread producer{[&] {
        for (std::uint64_t input = FIRST; input <= LAST; ++input) resampler->AddSample(Proof::Of(input));
        is_done = true;
    }};
    Proof last{};
    std::uint64_t faults = 0;
    int quiet = 0;  // looks since the producer's end; each may move a sample on by one stage of a chain
    while (quiet < 4 && faults == 0) {
        if (is_done) ++quiet;
        if (!resampler->HasSamples()) continue;
        quiet = 0;
        const Proof sample = resampler->GetSample().value();
        ++outputs;
        faults += !IsWhole(sample, value(sample)) || sample.timestamp <= last.timestamp ||
                  sample.sample_id != (is_renumbered ? outputs : sample.words[0]) ||
                  sample.Time() - sample.Origin() > 0.75;
        last = sample;
    }
    producer.join();
    EXPECT_EQ(faults, 0U) << name << ": after number " << last.words[0];
    EXPECT_EQ(last.words[0], LAST) << name;  // the newest input is never lost
}

TEST(TwoThreads, OneProducerAndOneConsumerAtFullSpeedSeeWholeSamplesInOrder) {
    const auto origin = [](const Proof& sample) { return sample.Origin(); };
    Meet("identity", std::make_unique<IdentityResampler<Proof, Opaque>>(0ns), false, origin);
    Meet("lerp", std::make_unique<LerpUpsampler<Proof, Accessed>>(1000, 4000, 0ns), true,
         [](const Proof& sample) { return sample.Time(); });
    Meet("decimation", std::make_unique<SampleIdDecimatingDownsampler<Proof, Opaque>>(4, 2, 0ns), true,
         origin);
    Meet("filter", MakeDelay(), false, [](const Proof& sample) { return sample.Origin() - 2; });
    Meet("chain", MakeChain(), true, origin);
}

// For the thread sanitizer: the stage's waiter does not know the chain's mutex.
TEST(TwoThreads, AWaitableStageAnswersItsWaiterWhileItsChainRuns) {
    using Mailbox = IdentityResampler<Proof, Opaque>;
    auto stage = std::make_unique<WaitableResamplerImplementation<Mailbox>>(1h);
    WaitableResampler& waitable = *stage;
    std::vector<Stage> stages;
    stages.push_back(std::move(stage));
    stages.push_back(std::make_unique<Mailbox>(0ns));
    ResamplerContainer<Proof> chain{std::move(stages)};
    const auto add = [&](std::uint64_t origin) {
        Proof proof = Proof::Of(origin);
        proof.timestamp = AtomClk::now();
        chain.AddSample(proof);
    };
    std::thread producer{[&] {
        for (std::uint64_t origin = 1; origin <= 2'000; ++origin) add(origin);
    }};
    for (int i = 0; i < 2'000; ++i) waitable.IsDataReady();
    producer.join();
    EXPECT_TRUE(waitable.IsDataReady());
    EXPECT_EQ(chain.GetSample()->words[0], 1U);
    EXPECT_EQ(chain.GetSample()->words[0], 2'000U);
}

}  // namespace
}  // namespace vosk::signal_processing::test
