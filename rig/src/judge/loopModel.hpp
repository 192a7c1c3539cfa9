#pragma once

// A loop as theory has it, for one mode of the light. Controllers look at the residual at each exposure. Each
// mirror gets a share of a controller's value after a delay, and follows it as a first-order lag. Seconds
// throughout.

#include <cstddef>
#include <vector>

namespace vosk::rig {

struct LoopMirror {
    double share = 1.0;
    double delay = 0.0;  // from the exposure to the command at the mirror
    double lag = 0.0;    // time constant
};

struct LoopController {
    double gain = 0.0;
    double leak = 1.0;
    std::vector<LoopMirror> mirrors;
};

class LoopModel {
public:
    LoopModel(const std::vector<LoopController>& controllers, double period);

    // The residual at an exposure, where the light without mirrors is this. Then a period passes.
    double Step(double light);

private:
    struct Command {
        double time;
        double target;
    };
    struct Mirror {
        std::size_t controller;
        LoopMirror settings;
        double position = 0.0;
        double target = 0.0;
        std::vector<Command> pending;
    };
    void Pass(Mirror& mirror) const;

    double m_period;
    std::vector<LoopController> m_controllers;
    std::vector<double> m_values;  // of the controllers
    std::vector<Mirror> m_mirrors;
};

// |S|: by how much the loop changes a wave of each frequency, hertz. It is taken from the impulse response,
// and so exact for the sampled loop with all its delays.
std::vector<double> RejectionAt(const std::vector<LoopController>& controllers, double period,
                                const std::vector<double>& frequencies);

// Mean power of `values` at frequencies k / (length x period), k = 1 to length / 2 - 1, over half overlapping
// windows of `length` (Welch). Calls of one length have one unit.
std::vector<double> PowerSpectrum(const std::vector<double>& values, std::size_t length);

}  // namespace vosk::rig
