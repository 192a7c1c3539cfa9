#pragma once

// The resamplers once more, as simply as they can be told: whole histories where the product keeps a slot,
// 128-bit sums where it must mind the range. And chains of both, made from one description.

#include <vosk/defs/valueTypes.hpp>
#include <vosk/signal_processing/resamplingFactory.hpp>
#include <vosk/test/support.hpp>

#include <cmath>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vosk::signal_processing::test {

using atomclk::AtomClk;
using vosk::test::At;
using Sample = lumo::MsOutputSample;
using Accessed = DefaultDataAccessor<Sample, float>;
using Opaque = NoDataAccessor<Sample>;
__extension__ using Wide = __int128;

inline Wide Ns(AtomClk::time_point time) {
    return time.time_since_epoch().count();
}

inline AtomClk::time_point Narrow(Wide ns) {
    constexpr Wide END = std::numeric_limits<std::int64_t>::max();
    return At(static_cast<std::int64_t>(ns > END ? END : ns));
}

class Model {
public:
    explicit Model(Wide stop) : m_stop{stop} {}
    virtual ~Model() = default;
    virtual bool Has() = 0;
    virtual void Add(const Sample& sample) = 0;
    virtual std::optional<Sample> Get() = 0;

protected:
    // A time beyond the last one that the clock knows is never reached but by it.
    bool IsOld(const Sample& sample) const {
        return m_stop != 0 && Narrow(Ns(sample.timestamp) + m_stop) <= AtomClk::now();
    }
    const Sample& Newest() const { return m_inputs.back(); }

    std::vector<Sample> m_inputs{Sample{}};

private:
    Wide m_stop;
};

class IdentityModel : public Model {
public:
    using Model::Model;
    bool Has() override { return m_is_new && !IsOld(Newest()); }
    void Add(const Sample& sample) override {
        m_inputs.push_back(sample);
        m_is_new = true;
    }
    std::optional<Sample> Get() override {
        if (IsOld(Newest())) return {};
        m_is_new = false;
        return Newest();
    }

protected:
    bool m_is_new = false;
};

class DecimationModel : public IdentityModel {
public:
    DecimationModel(std::size_t decimation, Wide stop) : IdentityModel{stop}, m_decimation{decimation} {}
    void Add(const Sample& sample) override {
        const bool was_new = m_is_new;
        IdentityModel::Add(sample);
        const bool is_due = m_inputs.size() - m_last_due >= m_decimation || sample.sample_id >= m_due_id;
        m_is_new = was_new || is_due;
        if (!is_due) return;
        m_last_due = m_inputs.size();
        m_due_id =
            static_cast<std::uint32_t>((std::uint64_t{sample.sample_id} + m_decimation) % (1ULL << 32U));
    }
    std::optional<Sample> Get() override {
        auto sample = IdentityModel::Get();
        if (sample) sample->sample_id = ++m_reads;
        return sample;
    }

private:
    std::size_t m_decimation;
    std::size_t m_last_due = 1;  // number of the input that was due last, counted with the first empty one
    std::uint32_t m_due_id = 0;
    std::uint32_t m_reads = 0;
};

class LerpModel : public Model {
public:
    LerpModel(std::size_t in, std::size_t out, bool is_held, Wide stop)
        : Model{stop},
          m_in{1'000'000'000 / in},
          m_out{1'000'000'000 / out},
          m_factor{out / in},
          m_next{m_factor},
          m_is_held{is_held} {}
    bool Has() override { return m_next < m_factor && !IsOld(Newest()); }
    void Add(const Sample& sample) override {
        const bool is_first = m_inputs.size() == 1;
        m_inputs.push_back(sample);
        Wide step = is_first ? 0 : Ns(sample.timestamp) - Ns(m_inputs[m_inputs.size() - 2].timestamp);
        step = std::min(step, Wide{std::numeric_limits<std::int64_t>::max()});
        const Wide next = std::max(step, m_in) / m_out + m_next - m_factor;
        m_next = next < 0 ? 0 : next % m_factor;
        m_older = is_first ? sample : m_inputs[m_inputs.size() - 2];
    }
    std::optional<Sample> Get() override {
        if (m_inputs.size() == 1 || IsOld(Newest())) return {};
        Sample sample = Newest();
        sample.timestamp = Narrow(Ns(sample.timestamp) + m_next * m_out);
        sample.sample_id = ++m_reads;
        const double t = 1.0 + static_cast<double>(m_next) / static_cast<double>(m_factor);
        if (!m_is_held) {
            sample.tt.tip = static_cast<float>(std::lerp(double{m_older.tt.tip}, double{sample.tt.tip}, t));
            sample.tt.tilt =
                static_cast<float>(std::lerp(double{m_older.tt.tilt}, double{sample.tt.tilt}, t));
        }
        ++m_next;
        return sample;
    }

private:
    Wide m_in;  // ns
    Wide m_out;
    Wide m_factor;
    Wide m_next;
    bool m_is_held;
    Sample m_older{};
    std::uint32_t m_reads = 0;
};

using Row = std::vector<double>;

struct Filter {
    std::vector<Row> a;
    Row b;
    Row c;
    double d;
};

inline const Filter FIRST_ORDER{{{0.75}}, {0.25}, {1.0}, 0.125};
inline const Filter SECOND_ORDER{{{1.2, -0.5}, {0.9, 0.1}}, {0.3, -0.2}, {0.5, 2.0}, 0.25};

// Starts at zero.
class FilterModel : public IdentityModel {
public:
    explicit FilterModel(Filter filter) : IdentityModel{0}, m_filter{std::move(filter)} {}
    void Add(const Sample& sample) override {
        IdentityModel::Add(sample);
        defs::FloatVectorTT& values = m_inputs.back().tt;
        values = {Step(m_tip, values.tip), Step(m_tilt, values.tilt)};
    }

private:
    float Step(Row& x, double u) const {
        Row next;
        double y = 0.0;
        for (std::size_t i = 0; i < x.size(); ++i) {
            y += m_filter.c[i] * x[i];
            double sum = 0.0;
            for (std::size_t j = 0; j < x.size(); ++j) sum += m_filter.a[i][j] * x[j];
            next.push_back(sum + m_filter.b[i] * u);
        }
        x = next;
        return static_cast<float>(y + m_filter.d * u);
    }

    Filter m_filter;
    Row m_tip = Row(m_filter.b.size());
    Row m_tilt = Row(m_filter.b.size());
};

class ChainModel : public Model {
public:
    explicit ChainModel(std::vector<std::unique_ptr<Model>> stages) : Model{0}, m_stages{std::move(stages)} {}
    bool Has() override { return Settle().Has(); }
    void Add(const Sample& sample) override {
        m_stages.front()->Add(sample);
        Settle();
    }
    std::optional<Sample> Get() override { return Settle().Get(); }

private:
    Model& Settle() {
        for (std::size_t i = 1; i < m_stages.size(); ++i) {
            while (!m_stages[i]->Has() && m_stages[i - 1]->Has()) m_stages[i]->Add(*m_stages[i - 1]->Get());
        }
        return *m_stages.back();
    }

    std::vector<std::unique_ptr<Model>> m_stages;
};

enum class Kind { IDENTITY, DECIMATION, LERP, HELD, FILTER1, FILTER2 };

struct Stage {
    Kind kind = Kind::IDENTITY;
    std::size_t in = 1;
    std::size_t out = 1;
    std::int64_t stop = 0;  // ns
};

// For GoogleTest, which finds it by its name.
inline void PrintTo(const Stage& stage, std::ostream* out) {
    constexpr const char* NAMES[] = {"identity", "decimation", "lerp", "held", "filter1", "filter2"};
    *out << NAMES[static_cast<std::size_t>(stage.kind)] << ' ' << stage.in << " -> " << stage.out << ", "
         << stage.stop;
}

// In their waitable form, which does all that the bare one does.
template <class R, class... Args>
std::unique_ptr<Resampler<Sample>> Make(Args&&... args) {
    return std::make_unique<WaitableResamplerImplementation<R>>(std::forward<Args>(args)...);
}

template <std::size_t Order>
std::unique_ptr<Resampler<Sample>> MakeFilter(const Filter& filter, bool initialize_state) {
    std::array<double, Order * Order> a{};
    for (std::size_t i = 0; i < a.size(); ++i) a[i] = filter.a[i / Order][i % Order];
    using Column = std::span<const double, Order>;
    return Make<StateSpaceFilter<Sample, Accessed, Order, 1, 1>>(
        a, Column{filter.b}, Column{filter.c}, std::span<const double, 1>{&filter.d, 1}, initialize_state);
}

inline std::unique_ptr<Resampler<Sample>> MakeReal(const Stage& stage) {
    const std::chrono::nanoseconds stop{stage.stop};
    if (stage.kind == Kind::IDENTITY) return Make<IdentityResampler<Sample, Opaque>>(stop);
    if (stage.kind == Kind::LERP) return Make<LerpUpsampler<Sample, Accessed>>(stage.in, stage.out, stop);
    if (stage.kind == Kind::HELD) return Make<LerpUpsampler<Sample, Opaque>>(stage.in, stage.out, stop);
    if (stage.kind == Kind::FILTER1) return MakeFilter<1>(FIRST_ORDER, false);
    if (stage.kind == Kind::FILTER2) return MakeFilter<2>(SECOND_ORDER, false);
    return Make<SampleIdDecimatingDownsampler<Sample, Opaque>>(stage.in, stage.out, stop);
}

inline std::unique_ptr<Model> MakeModel(const Stage& stage) {
    if (stage.kind == Kind::IDENTITY) return std::make_unique<IdentityModel>(stage.stop);
    if (stage.kind == Kind::FILTER1) return std::make_unique<FilterModel>(FIRST_ORDER);
    if (stage.kind == Kind::FILTER2) return std::make_unique<FilterModel>(SECOND_ORDER);
    if (stage.kind == Kind::DECIMATION)
        return std::make_unique<DecimationModel>(stage.in / stage.out, stage.stop);
    return std::make_unique<LerpModel>(stage.in, stage.out, stage.kind == Kind::HELD, stage.stop);
}

// Without a container for a chain of one.
inline std::unique_ptr<Resampler<Sample>> MakeReal(const std::vector<Stage>& chain) {
    if (chain.size() == 1) return MakeReal(chain.front());
    std::vector<std::unique_ptr<Resampler<Sample>>> stages;
    stages.reserve(chain.size());
    for (const Stage& stage : chain) stages.push_back(MakeReal(stage));
    return Make<ResamplerContainer<Sample>>(std::move(stages));
}

inline std::unique_ptr<Model> MakeModel(const std::vector<Stage>& chain) {
    if (chain.size() == 1) return MakeModel(chain.front());
    std::vector<std::unique_ptr<Model>> stages;
    stages.reserve(chain.size());
    for (const Stage& stage : chain) stages.push_back(MakeModel(stage));
    return std::make_unique<ChainModel>(std::move(stages));
}

using Outputs = std::vector<std::tuple<std::int64_t, std::uint32_t, float>>;  // us, number, value

inline Outputs ReadDue(Resampler<Sample>& resampler, int most) {
    Outputs outputs;
    for (int i = 0; i < most && resampler.HasSamples(); ++i) {
        const Sample output = resampler.GetSample().value();
        outputs.emplace_back(Ns(output.timestamp) / 1000, output.sample_id, output.tt.tip);
    }
    return outputs;
}

}  // namespace vosk::signal_processing::test
