// Handing samples from producer to consumer: an input, then all outputs that are due. Each resampler against
// the same arithmetic written out for its rates, behind the same mutex: what is left is the cost of virtual
// calls, age, rates that are settled at run time and times that may be hostile.

#include "bench.hpp"

#include <vosk/defs/valueTypes.hpp>
#include <vosk/signal_processing/resamplingFactory.hpp>

#include <cmath>
#include <memory>
#include <mutex>
#include <stdexcept>

using namespace std::chrono_literals;

namespace vosk::bench {
namespace {

using namespace signal_processing;
using atomclk::AtomClk;
using Sample = lumo::MsOutputSample;
using Accessor = DefaultDataAccessor<Sample, float>;

constexpr int BATCHES = 2'000;
constexpr std::size_t BATCH = 1'000;  // inputs timed at once

constexpr std::array<double, 4> A{1.2, -0.5, 0.9, 0.1};
constexpr std::array<double, 2> B{0.3, -0.2};
constexpr std::array<double, 2> C{0.5, 2.0};
constexpr double D = 0.25;

class PlainMailbox {
public:
    bool Has() const { return m_has; }
    void Add(const Sample& sample) {
        m_sample = sample;
        m_has = true;
    }
    Sample Get() {
        m_has = false;
        return m_sample;
    }

private:
    Sample m_sample{};
    bool m_has = false;
};

class PlainAgeing {
public:
    bool Has() const { return m_mailbox.Has() && IsFresh(); }
    void Add(const Sample& sample) {
        m_time = sample.timestamp;
        m_mailbox.Add(sample);
    }
    Sample Get() { return IsFresh() ? m_mailbox.Get() : Sample{}; }

private:
    bool IsFresh() const { return m_time + 1s > AtomClk::now(); }

    PlainMailbox m_mailbox;
    AtomClk::time_point m_time{};
};

class PlainDoubling {
public:
    bool Has() const { return m_index < 2; }
    void Add(const Sample& sample) {
        m_older = m_id == 0 ? sample : m_newer;
        m_newer = sample;
        m_index = 0;
    }
    Sample Get() {
        Sample output = m_newer;
        output.timestamp += 500us * m_index;
        output.sample_id = ++m_id;
        const double t = 1.0 + 0.5 * m_index;
        output.tt.tip = At(m_older.tt.tip, m_newer.tt.tip, t);
        output.tt.tilt = At(m_older.tt.tilt, m_newer.tt.tilt, t);
        ++m_index;
        return output;
    }

private:
    static float At(double older, double newer, double t) {
        return static_cast<float>(older + t * (newer - older));
    }

    Sample m_older{};
    Sample m_newer{};
    int m_index = 2;
    std::uint32_t m_id = 0;
};

class PlainHalving {
public:
    bool Has() const { return m_has; }
    void Add(const Sample& sample) {
        m_has |= m_count++ % 2 == 0;
        m_sample = sample;
    }
    Sample Get() {
        m_has = false;
        m_sample.sample_id = ++m_id;
        return m_sample;
    }

private:
    Sample m_sample{};
    bool m_has = false;
    std::uint32_t m_count = 0;
    std::uint32_t m_id = 0;
};

class PlainFilter {
public:
    bool Has() const { return m_mailbox.Has(); }
    void Add(Sample sample) {
        sample.tt.tip = Step(m_tip, sample.tt.tip);
        sample.tt.tilt = Step(m_tilt, sample.tt.tilt);
        m_mailbox.Add(sample);
    }
    Sample Get() { return m_mailbox.Get(); }

private:
    static float Step(std::array<double, 2>& x, double u) {
        const double y = C[0] * x[0] + C[1] * x[1] + D * u;
        x = {A[0] * x[0] + A[1] * x[1] + B[0] * u, A[2] * x[0] + A[3] * x[1] + B[1] * u};
        return static_cast<float>(y);
    }

    PlainMailbox m_mailbox;
    std::array<double, 2> m_tip{};
    std::array<double, 2> m_tilt{};
};

class PlainChain {
public:
    bool Has() {
        Move();
        return m_halving.Has();
    }
    void Add(const Sample& sample) {
        m_filter.Add(sample);
        Move();
    }
    Sample Get() {
        Move();
        return m_halving.Get();
    }

private:
    void Move() {
        if (!m_doubling.Has() && m_filter.Has()) m_doubling.Add(m_filter.Get());
        while (!m_halving.Has() && m_doubling.Has()) m_halving.Add(m_doubling.Get());
    }

    PlainFilter m_filter;
    PlainDoubling m_doubling;
    PlainHalving m_halving;
};

template <class Plain>
class Guarded {
public:
    bool HasSamples() {
        const std::lock_guard lock{m_mutex};
        return m_plain.Has();
    }
    void AddSample(const Sample& sample) {
        const std::lock_guard lock{m_mutex};
        m_plain.Add(sample);
    }
    std::optional<Sample> GetSample() {
        const std::lock_guard lock{m_mutex};
        return m_plain.Get();
    }

private:
    Plain m_plain;
    std::mutex m_mutex;
};

// Next to one another in time, with values that never repeat and never settle.
class Inputs {
public:
    const std::vector<Sample>& Next() {
        const auto now = AtomClk::now();
        for (std::size_t i = 0; i < BATCH; ++i) {
            const auto phase = static_cast<float>(++m_id);
            m_batch[i] = {now + 1ms * i, m_id, {std::sin(0.37F * phase), 100.0F + std::cos(0.11F * phase)}};
        }
        return m_batch;
    }

private:
    std::uint32_t m_id = 0;
    std::vector<Sample> m_batch = std::vector<Sample>(BATCH);
};

// Nanoseconds an input. `outputs` must have room for them.
template <class AnyResampler>
double HandOverNs(AnyResampler& resampler, const std::vector<Sample>& inputs, std::vector<Sample>& outputs) {
    outputs.clear();
    return TimeUs([&] {
               for (const Sample& input : inputs) {
                   resampler.AddSample(input);
                   while (resampler.HasSamples()) outputs.push_back(resampler.GetSample().value());
               }
           }) *
           1000.0 / static_cast<double>(BATCH);
}

// But for the rounding of values.
bool AreAlike(const Sample& a, const Sample& b) {
    const auto are_near = [](float x, float y) { return std::abs(x - y) <= 1e-5F * (1.0F + std::abs(y)); };
    return a.timestamp == b.timestamp && a.sample_id == b.sample_id && are_near(a.tt.tip, b.tt.tip) &&
           are_near(a.tt.tilt, b.tt.tilt);
}

// Ours and the reference in turn, so that a noisy moment meets both.
template <class Plain>
Row Compare(const std::string& what, std::unique_ptr<Resampler<Sample>> resampler) {
    Guarded<Plain> plain;
    Inputs inputs;
    std::vector<Sample> outputs;
    std::vector<Sample> plain_outputs;
    outputs.reserve(2 * BATCH);
    plain_outputs.reserve(2 * BATCH);
    std::vector<double> ours;
    std::vector<double> theirs;
    for (int i = 0; i < BATCHES; ++i) {
        const auto& batch = inputs.Next();
        ours.push_back(HandOverNs(*resampler, batch, outputs));
        theirs.push_back(HandOverNs(plain, batch, plain_outputs));
        if (!std::equal(outputs.begin(), outputs.end(), plain_outputs.begin(), plain_outputs.end(),
                        AreAlike)) {
            throw std::logic_error{"the reference for " + what + " does something else"};
        }
    }
    return {"hand over, " + what, "the same, plain, behind a mutex", "ns", Percentile(ours, 0.1),
            Percentile(theirs, 0.1)};
}

std::unique_ptr<Resampler<Sample>> MakeUpsampler() {
    return std::make_unique<LerpUpsampler<Sample, Accessor>>(1000, 2000, 0ns);
}

std::unique_ptr<Resampler<Sample>> MakeDownsampler() {
    return std::make_unique<SampleIdDecimatingDownsampler<Sample, Accessor>>(2000, 1000, 0ns);
}

std::unique_ptr<Resampler<Sample>> MakeFilter() {
    using Filter = StateSpaceFilter<Sample, Accessor, 2, 1, 1>;
    return std::make_unique<Filter>(A, B, C, std::span<const double, 1>{&D, 1}, false);
}

std::unique_ptr<Resampler<Sample>> MakeChain() {
    std::vector<std::unique_ptr<Resampler<Sample>>> stages;
    stages.push_back(MakeFilter());
    stages.push_back(MakeUpsampler());
    stages.push_back(MakeDownsampler());
    return std::make_unique<ResamplerContainer<Sample>>(std::move(stages));
}

std::unique_ptr<Resampler<Sample>> MakeMailbox(AtomClk::duration stop_interval) {
    return std::make_unique<IdentityResampler<Sample, Accessor>>(stop_interval);
}

}  // namespace

std::vector<Row> BenchResampling() {
    std::vector<Row> rows;
    rows.push_back(Compare<PlainMailbox>("identity", MakeMailbox(0ns)));
    rows.push_back(Compare<PlainAgeing>("identity, of limited age", MakeMailbox(1s)));
    rows.push_back(Compare<PlainDoubling>("lerp upsampler", MakeUpsampler()));
    rows.push_back(Compare<PlainHalving>("decimating downsampler", MakeDownsampler()));
    rows.push_back(Compare<PlainFilter>("state-space filter of order 2", MakeFilter()));
    rows.push_back(Compare<PlainChain>("filter, upsampler, downsampler", MakeChain()));
    return rows;
}

}  // namespace vosk::bench
