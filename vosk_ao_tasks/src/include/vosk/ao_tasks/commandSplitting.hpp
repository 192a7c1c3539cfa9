#pragma once

// Cuts a received wavefront command into its two tip/tilt pairs and its high-order part.
// Owned by Executor and used on its thread; it keeps nothing.

#include <vosk/defs/sizes.hpp>

#include <span>

namespace vosk::ao_tasks {

class CommandSplitting {
public:
    CommandSplitting();

    // Elements 0 and 1, 2 and 3, and the rest of the command, in its own units.
    void Work(std::span<const float, defs::WAVEFRONT_CMD_SIZE> command,
              std::span<float, defs::TIP_TILT_SIZE> first_pair,
              std::span<float, defs::TIP_TILT_SIZE> second_pair,
              std::span<float, defs::HIGH_ORDER_SIZE> high_order) const;
};

}  // namespace vosk::ao_tasks
