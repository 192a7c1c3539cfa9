#pragma once

// How the peers of field stabilisation behave in a scenario, and when each stream has its turn within the
// interval of the loop: the errors at its beginning, the flowgraph's input after three eighths of it, its
// output after half, the commands after three quarters.

#include <chrono>

namespace vosk::rig {

struct StreamSettings {
    std::chrono::milliseconds interval{20};  // of the loop's grid
    double gain = 0.4;                       // of the flowgraph's integrator
    double leak = 0.999;                     // what the integrator keeps from one sample to the next
    // What each mirror gets of the integrator's value. Without a telescope MS and U4 do nothing to the light;
    // their shares differ, so that a judge sees a value in the wrong place.
    double m5_share = 1.0;
    double ms_share = 0.25;
    double u4_share = -0.5;
    std::chrono::milliseconds m5_lag{20};  // time constant with which M5 follows its command
    double disturbance = 1.0;              // rms of the light's tip and tilt without correction
    // Tip and tilt where the mean of the four probes' errors is 1. Cameras, which count in pixels, change it.
    double error_scale = 1.0;
    double noise = 0.01;  // rms of what each probe adds
    // A sample later than this has missed its turn: an exception.
    std::chrono::microseconds margin{3000};
    double max_loop_error = 0.02;  // rms of residual less its prediction, as a share of the disturbance
    double min_rejection = 2.0;    // rms of the disturbance over that of the residual

    using Offset = std::chrono::microseconds;
    Offset MeasurementOffset() const { return Part(1); }  // of M5's and PFS's samples
    Offset InputOffset() const { return Part(3); }
    Offset OutputOffset() const { return Part(4); }
    // From the interval's end, as the host counts from the first point of the grid behind the answer.
    Offset CommandOffset() const { return Part(-2); }

private:
    Offset Part(int eighths) const { return std::chrono::microseconds{interval} * eighths / 8; }
};

}  // namespace vosk::rig
