#pragma once

// From a definition in the configuration to a resampler or a chain of them. For set-up.
// What can't be made is refused with std::runtime_error, logged at ERROR; the exceptions of a key that is
// missing or of the wrong type pass. `waitable` asks for a resampler that is a WaitableResampler too.

#include <oru/configng/pliConfig.hpp>
#include <vosk/signal_processing/downsampling.hpp>
#include <vosk/signal_processing/resamplerContainer.hpp>
#include <vosk/signal_processing/resampling.hpp>
#include <vosk/signal_processing/stateSpaceFilter.hpp>
#include <vosk/signal_processing/upsampling.hpp>
#include <vosk/signal_processing/waitableResampler.hpp>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vosk::signal_processing::factory {

using oru::configng::PliConfigInstanceNode;

namespace detail {

using Matrix = oru::experimental::datatypes::PliMatrix2D<double>;

struct Rates {
    std::size_t input;   // samples per second
    std::size_t output;  // the same
    Duration stop_interval;
};

struct Coefficients {
    std::size_t order;
    Matrix a;
    Matrix b;
    Matrix c;
    Matrix d;
    bool initialize_state;
};

Rates ReadRates(const PliConfigInstanceNode& stage);
Duration ReadStopInterval(const PliConfigInstanceNode& stage);
Coefficients ReadCoefficients(const PliConfigInstanceNode& stage);
// Refuses matrices of a wrong shape and values that are not finite.
void CheckCoefficients(const Coefficients& coefficients);
[[noreturn]] void RefuseName(const char* function, const std::string& name);
[[noreturn]] void RefuseType(const std::string& type, const std::string& name);
void RequireMap(const PliConfigInstanceNode& stage);
void RequireElements(const PliConfigInstanceNode& definition);

template <class R, class... Args>
std::unique_ptr<Resampler<typename R::Sample>> Make(bool waitable, Args&&... args) {
    if (waitable) return std::make_unique<WaitableResamplerImplementation<R>>(std::forward<Args>(args)...);
    return std::make_unique<R>(std::forward<Args>(args)...);
}

template <class T, class A, std::size_t Order>
std::unique_ptr<Resampler<T>> MakeFilter(const Coefficients& from, bool waitable) {
    CheckCoefficients(from);
    using Column = std::span<const double, Order>;
    return Make<StateSpaceFilter<T, A, Order, 1, 1>>(
        waitable, std::span<const double, Order * Order>{from.a.GetData()}, Column{from.b.GetData()},
        Column{from.c.GetData()}, std::span<const double, 1>{from.d.GetData()}, from.initialize_state);
}

}  // namespace detail

template <class T, class A>
std::unique_ptr<Resampler<T>> CreateUpsampler(const std::string& name, const PliConfigInstanceNode& node,
                                              bool waitable) {
    if (name != "lerp") detail::RefuseName("CreateUpsampler", name);
    const auto rates = detail::ReadRates(node);
    return detail::Make<LerpUpsampler<T, A>>(waitable, rates.input, rates.output, rates.stop_interval);
}

template <class T, class A>
std::unique_ptr<Resampler<T>> CreateDownsampler(const std::string& name, const PliConfigInstanceNode& node,
                                                bool waitable) {
    if (name != "decimation") detail::RefuseName("CreateDownsampler", name);
    const auto rates = detail::ReadRates(node);
    return detail::Make<SampleIdDecimatingDownsampler<T, A>>(waitable, rates.input, rates.output,
                                                             rates.stop_interval);
}

template <class T, class A>
std::unique_ptr<Resampler<T>> CreateIdentityResampler(const std::string& name,
                                                      const PliConfigInstanceNode& node, bool waitable) {
    if (name != "identity") detail::RefuseName("CreateIdentityResampler", name);
    return detail::Make<IdentityResampler<T, A>>(waitable, detail::ReadStopInterval(node));
}

// Only for samples whose numbers are accessible.
template <class T, DataAccessorOf<T> A>
std::unique_ptr<Resampler<T>> CreateFilter(const std::string& name, const PliConfigInstanceNode& node,
                                           bool waitable) {
    if (name != "statespace") detail::RefuseName("CreateFilter", name);
    const auto coefficients = detail::ReadCoefficients(node);
    if (coefficients.order == 1) return detail::MakeFilter<T, A, 1>(coefficients, waitable);
    if (coefficients.order == 2) return detail::MakeFilter<T, A, 2>(coefficients, waitable);
    detail::RefuseName("CreateFilter", name);
}

// One stage: a map with `type`, `name` and the keys of its kind.
template <class T, class A>
std::unique_ptr<Resampler<T>> CreateResamplerComponent(const PliConfigInstanceNode& node, bool waitable) {
    detail::RequireMap(node);
    const auto type = node["type"].As<std::string>();
    const auto name = node["name"].As<std::string>();
    if (type == "upsampler") return CreateUpsampler<T, A>(name, node, waitable);
    if constexpr (DataAccessorOf<A, T>) {
        if (type == "filter") return CreateFilter<T, A>(name, node, waitable);
    }
    if (type == "downsampler") return CreateDownsampler<T, A>(name, node, waitable);
    if (type == "identity") return CreateIdentityResampler<T, A>(name, node, waitable);
    detail::RefuseType(type, name);
}

// A definition: a sequence of stages. One stage comes bare; of a chain only the whole can be waited for.
template <class T, class A>
std::unique_ptr<Resampler<T>> CreateResampler(const PliConfigInstanceNode& node, bool waitable) {
    detail::RequireElements(node);
    if (node.GetSize() == 1) return CreateResamplerComponent<T, A>(node[0], waitable);
    std::vector<std::unique_ptr<Resampler<T>>> stages;
    stages.reserve(node.GetSize());
    for (const auto& stage : node) stages.push_back(CreateResamplerComponent<T, A>(stage, false));
    return detail::Make<ResamplerContainer<T>>(waitable, std::move(stages));
}

}  // namespace vosk::signal_processing::factory
