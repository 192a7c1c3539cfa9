#pragma once

// A discrete linear filter as a stage of a chain: one output for each input, its time stamp and ID passed on.

#include <vosk/signal_processing/resampling.hpp>

#include <algorithm>
#include <array>
#include <cmath>

namespace vosk::signal_processing {

namespace detail {

// The state of a second-order filter at rest under an input of 1, that is, x of (I - A) x = B. None where
// I - A is singular within the rounding of the coefficients: an integrator.
inline std::optional<std::array<double, 2>> StateAtRest(std::span<const double, 4> a,
                                                        std::span<const double, 2> b) {
    constexpr double ROUNDING = 4 * std::numeric_limits<double>::epsilon();
    const double determinant = (1.0 - a[0]) * (1.0 - a[3]) - a[1] * a[2];
    // What a relative change of each coefficient does to the determinant.
    const double slope = std::abs(1.0 - a[0]) * (1.0 + std::abs(a[3])) +
                         std::abs(1.0 - a[3]) * (1.0 + std::abs(a[0])) + 2.0 * std::abs(a[1] * a[2]);
    if (!(std::abs(determinant) > ROUNDING * slope)) return std::nullopt;
    // Elimination from the row of the larger first element: what is left of the equation is rounding of its
    // terms, also where I - A is nearly singular.
    std::array first{1.0 - a[0], -a[1], b[0]};
    std::array second{-a[2], 1.0 - a[3], b[1]};
    if (std::abs(second[0]) > std::abs(first[0])) std::swap(first, second);
    const double share = second[0] / first[0];
    std::array<double, 2> state{};
    state[1] = (second[2] - share * first[2]) / (second[1] - share * first[1]);
    state[0] = (first[2] - first[1] * state[1]) / first[0];
    if (!std::isfinite(state[0]) || !std::isfinite(state[1])) return std::nullopt;
    return state;
}

}  // namespace detail

// y = C x + D u, then x = A x + B u, in double, for each value u of a sample on its own: all share the
// coefficients, each has its state x. Data never gets too old in it
// (the stop interval is 0).
template <ResamplerSample T, DataAccessorOf<T> A, std::size_t States, std::size_t Inputs, std::size_t Outputs>
requires((States == 1 || States == 2) && Inputs == 1 && Outputs == 1) class StateSpaceFilter
    : public StopIntervalResampler<T, A> {
public:
    // The matrices row after row. `initialize_state`: the states start as if the first input had always been
    // there (order 1: as the first input), and not at 0; an order 2 that has no such state starts at 0, with
    // a warning.
    StateSpaceFilter(std::span<const double, States * States> a, std::span<const double, States> b,
                     std::span<const double, States> c, std::span<const double, 1> d, bool initialize_state)
        : StopIntervalResampler<T, A>{Duration::zero()}, m_d{d[0]} {
        std::copy(a.begin(), a.end(), m_a.begin());
        std::copy(b.begin(), b.end(), m_b.begin());
        std::copy(c.begin(), c.end(), m_c.begin());
        if (!initialize_state) return;
        if (const auto first_state = FirstStateUnderOne(a, b)) {
            m_first_state = *first_state;
            m_state_valid = false;
        } else {
            common::LogWarn("StateSpaceFilter: no state at rest, starts at 0");
        }
    }

    bool HasSamples() override {
        const std::lock_guard lock{this->m_mutex};
        return m_has_sample && !this->IsTooOld(m_output);
    }

    void AddSample(const T& sample) override {
        const std::lock_guard lock{this->m_mutex};
        m_output = sample;
        const auto values = A::Values(m_output);
        for (std::size_t i = 0; i < values.size(); ++i) {
            const auto u = static_cast<double>(values[i]);
            if (!m_state_valid) m_state[i] = FirstStateUnder(u);
            values[i] = static_cast<typename A::Value>(Step(m_state[i], u));
        }
        m_has_sample = true;
        m_state_valid = true;
    }

    std::optional<T> GetSample() override {
        const std::lock_guard lock{this->m_mutex};
        if (this->IsTooOld(m_output)) return std::nullopt;
        m_has_sample = false;
        return m_output;
    }

private:
    using State = std::array<double, States>;

    static std::optional<State> FirstStateUnderOne(std::span<const double, States * States> a,
                                                   std::span<const double, States> b) {
        if constexpr (States == 1) {
            return State{1.0};
        } else {
            return detail::StateAtRest(a, b);
        }
    }

    State FirstStateUnder(double u) const noexcept {
        State x = m_first_state;
        for (double& element : x) element *= u;
        return x;
    }

    // The output that belongs to the state before `u`.
    double Step(State& x, double u) const noexcept {
        double y = m_c[0] * x[0];
        for (std::size_t j = 1; j < States; ++j) y += m_c[j] * x[j];
        y += m_d * u;

        State next;
        for (std::size_t i = 0; i < States; ++i) {
            next[i] = m_a[i * States] * x[0];
            for (std::size_t j = 1; j < States; ++j) next[i] += m_a[i * States + j] * x[j];
            next[i] += m_b[i] * u;
        }
        x = next;
        return y;
    }

    // Constant after construction.
    std::array<double, States * States> m_a{};
    State m_b{};
    State m_c{};
    double m_d;
    State m_first_state{};  // under an input of 1
    // All guarded by m_mutex.
    std::array<State, A::SIZE> m_state{};  // one a value of the sample
    T m_output{};
    bool m_has_sample = false;
    bool m_state_valid = true;  // false: the first input is to set it
};

}  // namespace vosk::signal_processing
