#pragma once

// How the flowgraph of GPAO behaves in a scenario. It gets the coefficients of the first wavefront sensor.

#include <chrono>

namespace vosk::rig {

struct GpaoSettings {
    double gain = 0.3;     // of the integrator of each mode
    double tt_gain = 0.3;  // of tip and tilt, on which field stabilisation acts as well
    double leak = 0.99;    // what an integrator keeps from one sample to the next
    // From the last packet of a frame to its record in the flowgraph. More is an exception.
    std::chrono::microseconds margin{5000};
};

}  // namespace vosk::rig
