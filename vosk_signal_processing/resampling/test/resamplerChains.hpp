#pragma once

// Chains of resamplers and of their plain forms, made from one description.

#include <vosk/reference/resamplers.hpp>
#include <vosk/signal_processing/resamplingFactory.hpp>
#include <vosk/test/support.hpp>

namespace vosk::signal_processing::test {

using atomclk::AtomClk;
using reference::Filter;
using reference::Sample;
using vosk::test::At;
using Accessed = DefaultDataAccessor<Sample, float>;
using Opaque = NoDataAccessor<Sample>;
inline const Filter FIRST_ORDER{{{0.75}}, {0.25}, {1.0}, 0.125};
inline const Filter SECOND_ORDER{{{1.2, -0.5}, {0.9, 0.1}}, {0.3, -0.2}, {0.5, 2.0}, 0.25};

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

template <std::size_t Order>
std::unique_ptr<Resampler<Sample>> MakeFilter(const Filter& filter, bool initialize_state,
                                              bool waitable = true) {
    std::array<double, Order * Order> a{};
    for (std::size_t i = 0; i < a.size(); ++i) a[i] = filter.a[i / Order][i % Order];
    using Column = std::span<const double, Order>;
    return factory::detail::Make<StateSpaceFilter<Sample, Accessed, Order, 1, 1>>(
        waitable, a, Column{filter.b}, Column{filter.c}, std::span<const double, 1>{&filter.d, 1},
        initialize_state);
}

inline std::unique_ptr<Resampler<Sample>> MakeReal(const Stage& stage, bool waitable) {
    using factory::detail::Make;
    const std::chrono::nanoseconds stop{stage.stop};
    const auto& [kind, in, out, ns] = stage;
    if (kind == Kind::IDENTITY) return Make<IdentityResampler<Sample, Opaque>>(waitable, stop);
    if (kind == Kind::LERP) return Make<LerpUpsampler<Sample, Accessed>>(waitable, in, out, stop);
    if (kind == Kind::HELD) return Make<LerpUpsampler<Sample, Opaque>>(waitable, in, out, stop);
    if (kind == Kind::FILTER1) return MakeFilter<1>(FIRST_ORDER, false, waitable);
    if (kind == Kind::FILTER2) return MakeFilter<2>(SECOND_ORDER, false, waitable);
    return Make<SampleIdDecimatingDownsampler<Sample, Opaque>>(waitable, in, out, stop);
}

inline std::unique_ptr<reference::Resampler> MakeModel(const Stage& stage) {
    if (stage.kind == Kind::IDENTITY) return std::make_unique<reference::IdentityResampler>(stage.stop);
    if (stage.kind == Kind::FILTER1) return std::make_unique<reference::FilterResampler>(FIRST_ORDER);
    if (stage.kind == Kind::FILTER2) return std::make_unique<reference::FilterResampler>(SECOND_ORDER);
    if (stage.kind == Kind::DECIMATION)
        return std::make_unique<reference::DecimationResampler>(stage.in / stage.out, stage.stop);
    return std::make_unique<reference::LerpResampler>(stage.in, stage.out, stage.kind == Kind::HELD,
                                                      stage.stop);
}

// In its waitable form, which does all that the bare one does, of bare stages; without a container for a
// chain of one.
inline std::unique_ptr<Resampler<Sample>> MakeReal(const std::vector<Stage>& chain) {
    if (chain.size() == 1) return MakeReal(chain.front(), true);
    std::vector<std::unique_ptr<Resampler<Sample>>> stages;
    stages.reserve(chain.size());
    for (const Stage& stage : chain) stages.push_back(MakeReal(stage, false));
    return factory::detail::Make<ResamplerContainer<Sample>>(true, std::move(stages));
}

inline std::unique_ptr<reference::Resampler> MakeModel(const std::vector<Stage>& chain) {
    if (chain.size() == 1) return MakeModel(chain.front());
    std::vector<std::unique_ptr<reference::Resampler>> stages;
    stages.reserve(chain.size());
    for (const Stage& stage : chain) stages.push_back(MakeModel(stage));
    return std::make_unique<reference::ChainResampler>(std::move(stages));
}

using Outputs = std::vector<std::tuple<std::int64_t, std::uint32_t, float>>;  // us, number, value

inline Outputs ReadDue(Resampler<Sample>& resampler, int most) {
    Outputs outputs;
    for (int i = 0; i < most && resampler.HasSamples(); ++i) {
        const Sample output = resampler.GetSample().value();
        outputs.emplace_back(output.timestamp.time_since_epoch().count() / 1000, output.sample_id,
                             output.tt.tip);
    }
    return outputs;
}

}  // namespace vosk::signal_processing::test
