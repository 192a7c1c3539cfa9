#pragma once

// What M4 must receive for a given command, worked out in double precision and apart from the system under
// test: assembly by control mode, then the limits on the step and on the position of the actuators.
// The system works in single precision; each prediction says how far rounding alone can move the result.
// Constant after construction; used by the thread that checks, and at set-up.

#include "calibration.hpp"

#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/sizes.hpp>

#include <array>
#include <cstddef>
#include <span>
#include <vector>

namespace vosk::rig {

using M4Vector = std::span<float, defs::M4_CMD_SIZE>;
using ConstM4Vector = std::span<const float, defs::M4_CMD_SIZE>;

// Where the managed modes of a vector put the actuators.
struct Positions {
    std::vector<double> actuators;
    double modal_length = 0.0;  // Euclidean length of the managed modes, which scales the rounding
};

class ProjectionMatrix {
public:
    explicit ProjectionMatrix(ModalBasis basis);

    std::size_t Modes() const { return m_basis.modes; }

    // Of the first Modes() elements.
    Positions Project(std::span<const float> modal) const;

    // Positions of several vectors at once, for one pass over the matrix. `results` have their size.
    void Project(std::span<const std::span<const float>> modal, std::span<Positions> results) const;

    // Bound on the error of a single-precision projection of a vector of unit length.
    double Rounding() const { return m_rounding; }

private:
    ModalBasis m_basis;
    double m_rounding;
};

// The part of an M4 command that a control mode takes from the wavefront command, with nobody writing the
// field-stabilisation tip/tilt. Only the two instrument-driven modes are known here; others give zeroes.
void AssembleCommand(std::span<const float, defs::WAVEFRONT_CMD_SIZE> command, defs::VoskControlMode mode,
                     M4Vector assembled);

// How the managed modes are limited: in the delta variant the setpoint is p + factor * (c - p), with c the
// command and p what M4 applied last; in the absolute variant it is factor * c.
struct Limitation {
    double factor = 1.0;
    double tolerance = 0.0;  // of the factor, from single-precision rounding
    bool velocity_limited = false;
    bool gap_limited = false;
};

// One limitation, or several where values to compare lie so close together that rounding decides.
struct Limitations {
    std::array<Limitation, 3> values{};
    std::size_t count = 0;

    void Add(const Limitation& value) { values[count++] = value; }
    std::span<const Limitation> All() const { return {values.data(), count}; }
};

class SaturationModel {
public:
    // `rounding` as of ProjectionMatrix.
    SaturationModel(SaturationLimits limits, bool delta_scaling, std::size_t managed_modes, double rounding);

    // `delta_length`: Euclidean length of c - p over the managed modes.
    Limitations Limit(const Positions& command, const Positions& applied, double delta_length) const;

    // Whether `setpoint` is what the limitation makes of `command` after `applied`, within rounding.
    bool Matches(ConstM4Vector setpoint, ConstM4Vector command, ConstM4Vector applied,
                 const Limitation& limitation) const;

private:
    Limitations LimitDelta(const Positions& command, const Positions& applied, double delta_length) const;
    Limitations LimitAbsolute(const Positions& command, const Positions& applied, double delta_length) const;

    double m_velocity;
    double m_gap;
    bool m_delta_scaling;
    std::size_t m_managed_modes;
    double m_rounding;
};

double DistanceOf(std::span<const float> left, std::span<const float> right);

}  // namespace vosk::rig
