#include "judge/prediction.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace vosk::rig {
namespace {

constexpr double SINGLE_ROUNDING = std::numeric_limits<float>::epsilon() / 2.0;

// Vectors that one pass over the matrix serves. The matrix then streams once for all of them.
constexpr std::size_t BATCH = 8;

double LengthOf(std::span<const float> vector) {
    double sum = 0.0;
    for (float value : vector) sum += static_cast<double>(value) * value;
    return std::sqrt(sum);
}

double LargestMagnitude(std::span<const double> values) {
    double largest = 0.0;
    for (double value : values) largest = std::max(largest, std::abs(value));
    return largest;
}

double Quotient(double dividend, double divisor) {
    return divisor == 0.0 ? std::numeric_limits<double>::infinity() : dividend / divisor;
}

// "Left is below right" for values known to within `error`: both where rounding decides.
struct Comparison {
    bool may_hold;
    bool may_fail;
};
Comparison Compare(double left, double right, double error) {
    return {left <= right + error, left > right - error};
}

}  // namespace

ProjectionMatrix::ProjectionMatrix(ModalBasis basis) : m_basis(std::move(basis)) {
    double longest_row = 0.0;
    const std::span<const float> matrix(m_basis.matrix);
    for (std::size_t row = 0; row < defs::M4_CMD_SIZE; ++row)
        longest_row = std::max(longest_row, LengthOf(matrix.subspan(row * Modes(), Modes())));
    // A sum of n products in any order is off by at most n roundings of the sum of their magnitudes, which
    // is at most the product of the two lengths. Two more for the entries of the vector themselves.
    m_rounding = (static_cast<double>(Modes()) + 2.0) * SINGLE_ROUNDING * longest_row;
}

Positions ProjectionMatrix::Project(std::span<const float> modal) const {
    Positions result;
    Project(std::span(&modal, 1), std::span(&result, 1));
    return result;
}

void ProjectionMatrix::Project(std::span<const std::span<const float>> modal,
                               std::span<Positions> results) const {
    for (std::size_t first = 0; first < modal.size(); first += BATCH) {
        const std::size_t vectors = std::min(BATCH, modal.size() - first);
        // The vectors side by side, so that the innermost loop runs over them and needs no reduction.
        std::vector<double> columns(Modes() * BATCH, 0.0);
        for (std::size_t v = 0; v < vectors; ++v) {
            for (std::size_t mode = 0; mode < Modes(); ++mode)
                columns[mode * BATCH + v] = modal[first + v][mode];
            results[first + v].actuators.resize(defs::M4_CMD_SIZE);
            results[first + v].modal_length = LengthOf(modal[first + v].first(Modes()));
        }
        for (std::size_t row = 0; row < defs::M4_CMD_SIZE; ++row) {
            const float* entry = m_basis.matrix.data() + row * Modes();
            std::array<double, BATCH> sums{};
            for (std::size_t mode = 0; mode < Modes(); ++mode) {
                const double factor = entry[mode];
                for (std::size_t v = 0; v < BATCH; ++v) sums[v] += factor * columns[mode * BATCH + v];
            }
            for (std::size_t v = 0; v < vectors; ++v) results[first + v].actuators[row] = sums[v];
        }
    }
}

void AssembleCommand(std::span<const float, defs::WAVEFRONT_CMD_SIZE> command, defs::VoskControlMode mode,
                     M4Vector assembled) {
    std::fill(assembled.begin(), assembled.end(), 0.0F);
    if (!defs::IsInsDriven(mode)) return;
    if (mode == defs::VoskControlMode::INS_DRIVEN_SEQUENTIAL)
        std::copy_n(command.begin() + 2, defs::TIP_TILT_SIZE, assembled.begin());
    std::copy_n(command.begin() + 4, defs::HIGH_ORDER_SIZE, assembled.begin() + defs::TIP_TILT_SIZE);
}

double DistanceOf(std::span<const float> left, std::span<const float> right) {
    double sum = 0.0;
    for (std::size_t i = 0; i < left.size(); ++i) {
        const double difference = static_cast<double>(left[i]) - right[i];
        sum += difference * difference;
    }
    return std::sqrt(sum);
}

SaturationModel::SaturationModel(SaturationLimits limits, bool delta_scaling, std::size_t managed_modes,
                                 double rounding)
    : m_velocity(limits.velocity),
      m_gap(limits.gap),
      m_delta_scaling(delta_scaling),
      m_managed_modes(managed_modes),
      m_rounding(rounding) {}

Limitations SaturationModel::Limit(const Positions& command, const Positions& applied,
                                   double delta_length) const {
    return m_delta_scaling ? LimitDelta(command, applied, delta_length)
                           : LimitAbsolute(command, applied, delta_length);
}

Limitations SaturationModel::LimitDelta(const Positions& command, const Positions& applied,
                                        double delta_length) const {
    const double position = LargestMagnitude(applied.actuators);
    double step = 0.0;
    for (std::size_t i = 0; i < command.actuators.size(); ++i)
        step = std::max(step, std::abs(command.actuators[i] - applied.actuators[i]));
    const auto largest_after = [&](double factor) {
        double largest = 0.0;
        for (std::size_t i = 0; i < command.actuators.size(); ++i) {
            const double delta = command.actuators[i] - applied.actuators[i];
            largest = std::max(largest, std::abs(applied.actuators[i] + factor * delta));
        }
        return largest;
    };

    const double step_error = m_rounding * delta_length;
    const double position_error = m_rounding * applied.modal_length;
    const double relative = step > 0.0 ? step_error / step + 4.0 * SINGLE_ROUNDING : 0.0;

    Limitation by_velocity;
    by_velocity.factor = std::min(Quotient(m_velocity, step), 1.0);
    by_velocity.velocity_limited = by_velocity.factor < 1.0;
    // A step well below the threshold is not scaled at all, and 1 is exact.
    const bool surely_unscaled = step + step_error < m_velocity;
    by_velocity.tolerance = surely_unscaled ? 0.0 : by_velocity.factor * relative;

    const bool has_quotient = by_velocity.factor * step > 0.0;
    Limitation by_gap;
    by_gap.velocity_limited = by_velocity.velocity_limited;
    by_gap.gap_limited = true;
    by_gap.factor = has_quotient ? (m_gap - position) / step : 0.0;
    by_gap.tolerance = std::abs(by_gap.factor) * relative +
                       (has_quotient ? (position_error + SINGLE_ROUNDING * (m_gap + position)) / step : 0.0);

    Limitation held;
    held.factor = 0.0;
    held.gap_limited = true;

    const double next = largest_after(by_velocity.factor);
    const double back = largest_after(by_gap.factor);
    const double next_error = position_error + by_velocity.factor * step_error + 4.0 * SINGLE_ROUNDING * next;
    const double back_error = position_error + by_gap.tolerance * step + 4.0 * SINGLE_ROUNDING * back;
    const Comparison fits = Compare(next, m_gap, next_error);
    const Comparison outside = Compare(m_gap, position, position_error);
    const Comparison inward = Compare(next, position, next_error + position_error);
    const Comparison returns = Compare(back, position, back_error + position_error);

    const bool may_turn = fits.may_fail && outside.may_hold && inward.may_fail;
    Limitations result;
    if ((fits.may_fail && outside.may_fail) || (may_turn && has_quotient && returns.may_hold))
        result.Add(by_gap);
    if (fits.may_hold || (outside.may_hold && inward.may_hold)) result.Add(by_velocity);
    if (may_turn && (!has_quotient || returns.may_fail)) result.Add(held);
    return result;
}

Limitations SaturationModel::LimitAbsolute(const Positions& command, const Positions& applied,
                                           double delta_length) const {
    const double commanded = LargestMagnitude(command.actuators);
    double step = 0.0;
    for (std::size_t i = 0; i < command.actuators.size(); ++i)
        step = std::max(step, std::abs(command.actuators[i] - applied.actuators[i]));
    const double gap_factor = Quotient(m_gap, commanded);
    const double step_factor = std::min(Quotient(m_velocity, step), 1.0);
    double limited = 0.0;
    for (std::size_t i = 0; i < command.actuators.size(); ++i) {
        const double delta = command.actuators[i] - applied.actuators[i];
        limited = std::max(limited, std::abs(applied.actuators[i] + step_factor * delta));
    }
    const double velocity_factor = commanded == 0.0 ? 1.0 : limited / commanded;

    Limitation limitation;
    limitation.factor = std::min({1.0, gap_factor, velocity_factor});
    limitation.gap_limited = limitation.factor < 1.0 && gap_factor <= velocity_factor;
    limitation.velocity_limited = limitation.factor < 1.0 && !limitation.gap_limited;
    // Positions and steps both enter, each as exactly as a projection in single precision gives it.
    const double error = m_rounding * (applied.modal_length + 2.0 * delta_length);
    if (commanded > 0.0)
        limitation.tolerance = (1.0 + limitation.factor) * error / commanded + 8.0 * SINGLE_ROUNDING;
    Limitations result;
    result.Add(limitation);
    return result;
}

bool SaturationModel::Matches(ConstM4Vector setpoint, ConstM4Vector command, ConstM4Vector applied,
                              const Limitation& limitation) const {
    for (std::size_t i = 0; i < m_managed_modes; ++i) {
        const double c = command[i];
        const double p = m_delta_scaling ? static_cast<double>(applied[i]) : 0.0;
        const double expected = p + limitation.factor * (c - p);
        const double tolerance = std::abs(c - p) * limitation.tolerance +
                                 4.0 * SINGLE_ROUNDING * (std::abs(c) + 2.0 * std::abs(p)) +
                                 std::numeric_limits<float>::min();
        // Written so that a setpoint that is not a number fails.
        if (!(std::abs(setpoint[i] - expected) <= tolerance)) return false;
    }
    return std::equal(setpoint.begin() + static_cast<std::ptrdiff_t>(m_managed_modes), setpoint.end(),
                      command.begin() + static_cast<std::ptrdiff_t>(m_managed_modes));
}

}  // namespace vosk::rig
