// Handing a sample from producer to consumer: one AddSample and one GetSample of each resampler, against a
// bare mailbox, which is an uncontended mutex and a copy each way.

#include "bench.hpp"

#include <vosk/defs/valueTypes.hpp>
#include <vosk/signal_processing/resamplingFactory.hpp>

#include <memory>
#include <mutex>

using namespace std::chrono_literals;

namespace vosk::bench {
namespace {

using namespace signal_processing;
using atomclk::AtomClk;
using Sample = lumo::MsOutputSample;
using Accessor = DefaultDataAccessor<Sample, float>;
using Filter = StateSpaceFilter<Sample, Accessor, 2, 1, 1>;

constexpr int BATCHES = 2'000;
constexpr int BATCH = 1'000;  // hand-overs timed at once

class BareMailbox {
public:
    void AddSample(const Sample& sample) {
        const std::lock_guard lock{m_mutex};
        m_sample = sample;
    }
    std::optional<Sample> GetSample() {
        const std::lock_guard lock{m_mutex};
        return m_sample;
    }

private:
    Sample m_sample;
    std::mutex m_mutex;
};

// Nanoseconds a hand-over; the sum keeps the work from being left out.
template <class Mailbox>
double HandOverNs(Mailbox& mailbox, Sample& sample, float& sum) {
    sample.timestamp = AtomClk::now();
    return TimeUs([&] {
               for (int i = 0; i < BATCH; ++i) {
                   ++sample.sample_id;
                   sample.timestamp += 1ms;
                   mailbox.AddSample(sample);
                   if (const auto output = mailbox.GetSample()) sum += output->tt.tip;
               }
           }) *
           1000.0 / BATCH;
}

// Ours and the reference in turn, so that a noisy moment meets both.
Row Compare(const std::string& what, std::unique_ptr<Resampler<Sample>> resampler) {
    BareMailbox bare;
    Sample sample{};
    float sum = 0.0F;
    std::vector<double> ours;
    std::vector<double> theirs;
    for (int i = 0; i < BATCHES; ++i) {
        ours.push_back(HandOverNs(*resampler, sample, sum));
        theirs.push_back(HandOverNs(bare, sample, sum));
    }
    if (sum != 0.0F) throw std::logic_error{"zeroes went in, something else came out"};
    return {"add and get, " + what, "mutex and copy, twice", "ns", Percentile(ours, 0.1),
            Percentile(theirs, 0.1)};
}

std::unique_ptr<Resampler<Sample>> MakeFilter() {
    static constexpr std::array<double, 4> A{1.2, -0.5, 0.9, 0.1};
    static constexpr std::array<double, 2> B{0.3, -0.2};
    static constexpr std::array<double, 1> D{0.25};
    return std::make_unique<Filter>(A, B, B, D, true);
}

std::unique_ptr<Resampler<Sample>> MakeChain() {
    std::vector<std::unique_ptr<Resampler<Sample>>> stages;
    stages.push_back(MakeFilter());
    stages.push_back(std::make_unique<LerpUpsampler<Sample, Accessor>>(1000, 2000, 0ns));
    stages.push_back(std::make_unique<SampleIdDecimatingDownsampler<Sample, Accessor>>(2000, 1000, 0ns));
    return std::make_unique<ResamplerContainer<Sample>>(std::move(stages));
}

}  // namespace

std::vector<Row> BenchResampling() {
    std::vector<Row> rows;
    rows.push_back(Compare("identity", std::make_unique<IdentityResampler<Sample, Accessor>>(0ns)));
    rows.push_back(
        Compare("identity, of limited age", std::make_unique<IdentityResampler<Sample, Accessor>>(1s)));
    rows.push_back(
        Compare("lerp upsampler", std::make_unique<LerpUpsampler<Sample, Accessor>>(1000, 2000, 0ns)));
    rows.push_back(
        Compare("decimating downsampler",
                std::make_unique<SampleIdDecimatingDownsampler<Sample, Accessor>>(2000, 1000, 0ns)));
    rows.push_back(Compare("state-space filter of order 2", MakeFilter()));
    rows.push_back(Compare("filter, upsampler, downsampler", MakeChain()));
    return rows;
}

}  // namespace vosk::bench
